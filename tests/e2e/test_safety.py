"""What only the real binary shows of its safety rules: names never reach outside the data
folder, a runaway condition cannot freeze the world, a save that fails at SIGTERM ends with
status 1 instead of an abort, and one service per data folder."""

import concurrent.futures
import os
import shutil
import signal

import kqservice
from kqservice import FolderTest, Service, start_failure


class SafetyTest(FolderTest):
    def test_a_category_name_never_reaches_outside_the_data_folder(self):
        victim = self.write("victim.sqlite", "keep me")
        with Service("--log-level", "2") as service:
            name = os.path.relpath(victim[: -len(".sqlite")], service.data_dir) + "\u0000"
            self.assertEqual(1, service.world("createObjectCategory", name, False))
            self.assertEqual(1, service.world("removeObjectCategory", name))
            self.assertIn("Category name ../", service.stderr_text())
        with open(victim) as f:
            self.assertEqual("keep me", f.read())

    def test_a_runaway_condition_returns_at_the_deadline_and_the_world_answers(self):
        with Service("--sql-timeout-ms", "300", "--log-level", "2") as service:
            service.world("storeObject", "cup", "World", [0, 0, 0, 0, 0, 0], "frame",
                          [["Display", [["colorR", 1.0]]]])
            endless = "1 IN (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) SELECT x FROM c WHERE x<0)"
            with concurrent.futures.ThreadPoolExecutor() as pool:
                runaway = pool.submit(service.world, "deleteObjectAttribute", "cup", "Display", endless)
                self.assertTrue(service.world("objectCategoryExists", "frame"))
                self.assertNotEqual(0, runaway.result(60))
            self.assertIn("deadline of 300 ms", service.stderr_text())

    def test_a_save_that_fails_at_sigterm_ends_with_status_1(self):
        with Service("--log-level", "2") as service:
            shutil.rmtree(service.data_dir)
            self.assertEqual(1, service.stop(signal.SIGTERM))
            self.assertIn("Could not save the world", service.stderr_text())
            self.assertNotIn("terminate called", service.stderr_text())

    def test_one_service_per_data_folder(self):
        with Service() as first:
            first.world("createObjectCategory", "Cups", False)
            self.assertEqual(start_failure("--port", "0", "--data-dir", first.data_dir), (1, [
                "kqworldrepresentation: data folder %s is in use by process %d" % (first.data_dir, first.process.pid)]))
            self.assertTrue(first.world("objectCategoryExists", "Cups"))


if __name__ == "__main__":
    kqservice.main()
