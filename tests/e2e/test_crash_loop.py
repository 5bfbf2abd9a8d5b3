"""The crash loop: the service runs with --restore --autosave 1 while several clients
store, move (saved and not), clear and save; it is killed with SIGKILL at random
moments and restarted with --restore, and every restart must give back what the
clients were told: acknowledged stores under their parent, saved moves at their pose
or a later one, no cleared object, and sound databases. KQ_CRASH_KILLS sets the kills."""

import glob
import json
import os
import random
import signal
import sqlite3
import threading
import time

import kqservice
from kqservice import FolderTest, Service

KILLS = int(os.environ.get("KQ_CRASH_KILLS", "100"))
ROBOT = {"World", "Robot", "Robot_Torso"}


class Client(threading.Thread):
    """Drives objects of its own until the service dies; ledger: name -> {parent, poses, state}."""

    def __init__(self, service, prefix, joint, seed):
        super().__init__(daemon=True)
        self.service, self.ledger, self.prefix, self.joint = service, {}, prefix, joint
        self.random, self.counter = random.Random(seed), 0

    def send(self, method, *params):
        try:
            return self.service.world(method, *params)
        except (OSError, AssertionError, ValueError) as fault:  # killed in flight, or refused while dying
            raise ConnectionError(fault)

    def live(self, kind):
        return [n for n, o in self.ledger.items() if n.startswith(self.prefix + kind) and o["state"] == "stored"]

    def run(self):
        try:
            while True:
                self.step()
        except ConnectionError:
            pass

    def step(self):
        r, tables = self.random.random(), self.live("t")
        x = round(self.random.uniform(-5, 5), 3)
        if r < 0.3 or not tables:
            self.counter += 1
            kind = "c" if tables and r < 0.15 else "t"
            name = "%s%s%d" % (self.prefix, kind, self.counter)
            parent = self.random.choice(tables) if kind == "c" else self.random.choice(["World", self.joint])
            self.ledger[name] = {"parent": parent, "poses": [x], "state": "maybe"}
            if self.send("storeObject", name, parent, [x, 0.0, 0.0, 0.0, 0.0, 0.0], "frame", []) == 0:
                self.ledger[name]["state"] = "stored"
        elif r < 0.75:
            name, saved = self.random.choice(tables + self.live("c")), r < 0.55
            self.ledger[name]["poses"].append(x)
            if self.send("updatePosition", name, [x, 0.0, 0.0, 0.0, 0.0, 0.0], saved) == 0 and saved:
                self.ledger[name]["poses"] = [x]
        elif r < 0.9 or len(tables) > 12:
            name = self.random.choice(tables + self.live("c"))
            gone = [name] + [n for n, o in self.ledger.items() if o["parent"] == name and o["state"] != "cleared"]
            for n in gone:
                self.ledger[n]["state"] = "clearing"
            if self.send("clearObject", name) == 0:
                for n in gone:
                    self.ledger[n]["state"] = "cleared"
        else:
            self.send("save")


class CrashLoopTest(FolderTest):
    def test_every_restart_gives_back_what_was_acknowledged(self):
        service = Service("--restore", "--autosave", "1")
        self.addCleanup(service.close)
        service.start()
        joint = service.world("getChildrenNames", "Robot_Torso")[0]
        ledger, rng, checked, losses, started = {}, random.Random(14), 0, [], time.monotonic()
        for kill in range(KILLS):
            clients = [Client(service, "k%dn%d" % (kill, i), joint, rng.random()) for i in range(3)]
            [client.start() for client in clients]
            time.sleep(rng.uniform(0.05, 0.5))
            service.process.send_signal(signal.SIGKILL)
            service.process.wait()
            [client.join() or ledger.update(client.ledger) for client in clients]
            for path in glob.glob(os.path.join(service.data_dir, "*.sqlite")):
                with sqlite3.connect(path) as db:
                    if db.execute("PRAGMA integrity_check").fetchone()[0] != "ok":
                        losses.append("integrity of " + path)
            service.start()
            checked += self.check(service, ledger, losses)
        print("crash loop: %d kills, %d objects checked, %d losses, %.1f s"
              % (KILLS, checked, len(losses), time.monotonic() - started))
        self.assertEqual([], losses[:10])

    def check(self, service, ledger, losses):
        """Compares the world with the ledger, then takes the world as the new truth."""
        names = [n for n, o in ledger.items() if o["state"] != "gone"]
        batch = [{"jsonrpc": "2.0", "id": i, "method": "KQWorldRepresentation." + m, "params": p}
                 for i, (m, p) in enumerate([("getObjectNames", [])] + [("getObjectParentName", [n]) for n in names])]
        answers = {a["id"]: a["result"] for a in json.loads(service.post(json.dumps(batch))[1])}
        present = set(answers[0]) - ROBOT
        poses = dict(zip(names, self.poses(service, [(answers[i + 1], n) for i, n in enumerate(names)])))
        for i, name in enumerate(names):
            entry, here = ledger[name], name in present
            if entry["state"] == "cleared" and here or entry["state"] == "stored" and not here:
                losses.append("%s %s but %s" % (name, entry["state"], "back" if here else "gone"))
            elif here and (answers[i + 1] != entry["parent"] or
                           min(abs(poses[name] - x) for x in entry["poses"]) > 1e-3):
                losses.append("%s under %s at %s, expected %s at %s" % (
                    name, answers[i + 1], poses[name], entry["parent"], entry["poses"]))
            entry["state"], entry["poses"] = ("stored", [poses[name]]) if here else ("gone", [])
        joints = set(service.world("getChildrenNames", "Robot_Torso"))
        losses.extend("%s appeared" % n for n in present - set(names) - joints)
        return len(names)

    def poses(self, service, pairs):
        batch = [{"jsonrpc": "2.0", "id": i, "method": "KQWorldRepresentation.getPosition6D", "params": [p, n]}
                 for i, (p, n) in enumerate(pairs)]
        answers = {a["id"]: a["result"] for a in json.loads(service.post(json.dumps(batch))[1])} if batch else {}
        return [(answers[i] or [float("nan")])[0] for i in range(len(pairs))]


if __name__ == "__main__":
    kqservice.main()
