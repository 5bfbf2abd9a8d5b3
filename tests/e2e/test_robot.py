"""The real binary's --robot with a URDF of our own, --torso-link choosing its torso, and
descriptions that cannot work. How joints move and compose is the robot model's own suite.

    ground (root)
     `-- lift (prismatic z, [0, 0.4], at z 0.3) -- Chest (the torso)
           `-- neck (fixed, z 0.2) -- NeckBase
                 `-- pan (continuous z) -- HeadLink
                       `-- tongue (revolute z, mimics pan) -- Tongue
"""

import os

import kqservice
from kqservice import FolderTest, Service, close_to, free_port, start_failure

ROBOT = """<?xml version="1.0"?>
<robot name="stacked">
  <link name="ground"/><link name="Chest"/><link name="NeckBase"/><link name="HeadLink"/><link name="Tongue"/>
  <joint name="lift" type="prismatic"><parent link="ground"/><child link="Chest"/>
    <origin xyz="0 0 0.3"/><axis xyz="0 0 1"/><limit lower="0" upper="0.4" effort="1" velocity="1"/></joint>
  <joint name="neck" type="fixed"><parent link="Chest"/><child link="NeckBase"/><origin xyz="0 0 0.2"/></joint>
  <joint name="pan" type="continuous"><parent link="NeckBase"/><child link="HeadLink"/><axis xyz="0 0 1"/></joint>
  <joint name="tongue" type="revolute"><parent link="HeadLink"/><child link="Tongue"/><axis xyz="0 0 1"/>
    <limit lower="-1" upper="1" effort="1" velocity="1"/><mimic joint="pan"/></joint>
</robot>
"""


class RobotDescriptionTest(FolderTest):
    def test_the_chosen_robot_and_torso_are_the_worlds_and_descriptions_that_cannot_work(self):
        data = os.path.join(self.folder, "data")
        missing = os.path.join(self.folder, "missing.urdf")
        broken = self.write("broken.urdf", ROBOT.replace('<child link="Tongue"/>', '<child link="Nowhere"/>'))
        good = self.write("stacked.urdf", ROBOT)  # without the default torso link "Torso"
        for robot, line in [(missing, "Cannot read robot description %s: No such file or directory" % missing),
                            (broken, "Cannot read robot description %s: " % broken),
                            (good, "Robot description %s has no link named Torso" % good)]:
            status, lines = start_failure("--port", str(free_port()), "--data-dir", data, "--robot", robot)
            self.assertEqual((status, len(lines)), (1, 1), lines)
            self.assertTrue(lines[0].startswith("kqworldrepresentation: " + line), lines[0])
        # Case: none of these starts touched the data folder's databases; the good one with its torso works.
        self.assertFalse(os.path.isdir(data) and [f for f in os.listdir(data) if f.endswith(".sqlite")])
        with Service("--robot", good, "--torso-link", "Chest") as service:
            self.assertEqual(service.world("getObjectNames")[3:], ["lift", "pan", "tongue"])
            service.call("KQMotion.setAngles", ["lift"], [0.1])
            close_to(self, service.world("getPosition", "Robot", "Robot_Torso"), [[1.0, 0.0, 0.0, 0.0], [0.0, 0.0, 0.4]])


if __name__ == "__main__":
    kqservice.main()
