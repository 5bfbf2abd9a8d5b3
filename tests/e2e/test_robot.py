"""The robot description options of the real binary: a URDF of our own with
prismatic, continuous, fixed and mimic joints several levels deep, a torso
link chosen with --torso-link, and descriptions that cannot work.

The robot of these tests (the torso is "Chest", not the default "Torso"):

    ground (root)
     `-- lift (prismatic z, [0, 0.4], at z 0.3) -- Chest
           `-- neck (fixed, z 0.2) -- NeckBase
                 `-- pan (continuous z) -- HeadLink
                       `-- tilt (revolute y, +-0.5) -- Face
                             `-- jaw (prismatic x, [0, 0.05]) -- Jaw
                                   `-- jaw_mirror (prismatic x, mimics jaw x -1) -- JawMirror
                                         `-- tongue (revolute z, mimics jaw_mirror x 10) -- Tongue
"""

import os
import shutil
import tempfile
import time
import unittest

import kqservice
from kqservice import Service, close_to, free_port, start_failure

ROBOT = """<?xml version="1.0"?>
<robot name="stacked">
  <link name="ground"/><link name="Chest"/><link name="NeckBase"/><link name="HeadLink"/>
  <link name="Face"/><link name="Jaw"/><link name="JawMirror"/><link name="Tongue"/>
  <joint name="lift" type="prismatic"><parent link="ground"/><child link="Chest"/>
    <origin xyz="0 0 0.3"/><axis xyz="0 0 1"/><limit lower="0" upper="0.4" effort="1" velocity="1"/></joint>
  <joint name="neck" type="fixed"><parent link="Chest"/><child link="NeckBase"/><origin xyz="0 0 0.2"/></joint>
  <joint name="pan" type="continuous"><parent link="NeckBase"/><child link="HeadLink"/><axis xyz="0 0 1"/></joint>
  <joint name="tilt" type="revolute"><parent link="HeadLink"/><child link="Face"/><origin xyz="0.05 0 0"/>
    <axis xyz="0 1 0"/><limit lower="-0.5" upper="0.5" effort="1" velocity="1"/></joint>
  <joint name="jaw" type="prismatic"><parent link="Face"/><child link="Jaw"/><origin xyz="0.1 0 0"/>
    <axis xyz="1 0 0"/><limit lower="0" upper="0.05" effort="1" velocity="1"/></joint>
  <joint name="jaw_mirror" type="prismatic"><parent link="Jaw"/><child link="JawMirror"/>
    <axis xyz="1 0 0"/><limit lower="-0.05" upper="0" effort="1" velocity="1"/>
    <mimic joint="jaw" multiplier="-1" offset="0"/></joint>
  <joint name="tongue" type="revolute"><parent link="JawMirror"/><child link="Tongue"/>
    <axis xyz="0 0 1"/><limit lower="-1" upper="1" effort="1" velocity="1"/>
    <mimic joint="jaw_mirror" multiplier="10"/></joint>
</robot>
"""


class RobotDescriptionTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kqe2e-robot-")

    def tearDown(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def test_every_joint_kind_follows_in_the_world(self):
        robot = self.write("stacked.urdf", ROBOT)
        with Service("--robot", robot, "--torso-link", "Chest") as service:
            # Case: the world hangs every moving joint (mimic ones too) under
            # the torso and leaves the fixed neck out.
            names = service.world("getObjectNames")
            self.assertEqual(names[3:], ["lift", "pan", "tilt", "jaw", "jaw_mirror", "tongue"])
            self.assertEqual(service.call("KQMotion.getBodyNames", "Body"),
                             ["Torso", "lift", "pan", "tilt", "jaw", "jaw_mirror", "tongue"])

            # Case: the torso is the chosen link: 0.3 m over the ground.
            close_to(self, service.world("getPosition", "Robot", "Robot_Torso"), [[1.0, 0.0, 0.0, 0.0],
                                                                                  [0.0, 0.0, 0.3]])
            # Case: the prismatic lift raises the torso, clamped at 0.4.
            service.call("KQMotion.setAngles", ["lift"], [9.0])
            close_to(self, service.call("KQMotion.getAngles", ["lift"]), [0.4])
            close_to(self, service.world("getPosition", "Robot", "Robot_Torso")[1], [0.0, 0.0, 0.7])

            # Case: turning the continuous pan a quarter swings the face's
            # offset from +x to +y of the torso (five levels down).
            service.call("KQMotion.setAngles", ["pan", "jaw"], [1.5707963, 0.02])
            close_to(self, service.world("getPosition", "Robot_Torso", "tilt")[1], [0.0, 0.05, 0.2])
            close_to(self, service.world("getPosition", "Robot_Torso", "jaw")[1], [0.0, 0.17, 0.2])
            # Case: the mimic chain follows: the mirror undoes the jaw, the
            # tongue turns 10 x -0.02 = -0.2 rad about z.
            close_to(self, service.world("getPosition", "Robot_Torso", "jaw_mirror")[1], [0.0, 0.15, 0.2])
            close_to(self, service.world("getPosition6D", "jaw_mirror", "tongue"), [0, 0, 0, 0, 0, -0.2])
            close_to(self, service.call("KQMotion.getAngles", ["jaw_mirror"]), [-0.02])

            # Case: a mimic joint cannot be commanded; the error is the call's.
            reply = service.rpc("KQMotion.setAngles", [["tongue"], [0.3]])
            self.assertEqual(reply["error"]["code"], -32000)
            self.assertIn("Joint tongue follows joint jaw_mirror and cannot be set.", reply["error"]["message"])

            # Case: the robot's odometry carries the whole body into the world.
            service.call("KQMotion.setRobotPosition", [1.0, 1.0, 0.0])
            time.sleep(0.1)
            close_to(self, service.world("getPosition", "World", "Robot_Torso")[1], [1.0, 1.0, 0.7])

    def test_descriptions_that_cannot_work_end_the_start(self):
        data = os.path.join(self.folder, "data")
        port = str(free_port())

        # Case: a file that is not there.
        missing = os.path.join(self.folder, "missing.urdf")
        status, lines = start_failure("--port", port, "--data-dir", data, "--robot", missing)
        self.assertEqual((status, lines),
                         (1, ["kqworldrepresentation: Cannot read robot description %s: No such file or directory"
                              % missing]))

        # Case: a broken file: one line with urdfdom's reason, nothing else.
        broken = self.write("broken.urdf", ROBOT.replace('<child link="Jaw"/>', '<child link="Nowhere"/>'))
        status, lines = start_failure("--port", port, "--data-dir", data, "--robot", broken)
        self.assertEqual(status, 1)
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("kqworldrepresentation: Cannot read robot description %s: " % broken),
                        lines[0])

        # Case: not XML at all.
        garbage = self.write("garbage.urdf", "robot? what robot")
        status, lines = start_failure("--port", port, "--data-dir", data, "--robot", garbage)
        self.assertEqual(status, 1)
        self.assertEqual(len(lines), 1, lines)

        # Case: a good description without the torso link asked for (the
        # default "Torso").
        good = self.write("stacked.urdf", ROBOT)
        status, lines = start_failure("--port", port, "--data-dir", data, "--robot", good)
        self.assertEqual((status, lines),
                         (1, ["kqworldrepresentation: Robot description %s has no link named Torso" % good]))

        # Case: none of these starts touched the data folder's databases.
        self.assertEqual([f for f in os.listdir(data) if f.endswith(".sqlite")] if os.path.isdir(data) else [], [])


if __name__ == "__main__":
    kqservice.main()
