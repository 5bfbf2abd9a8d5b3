"""The crash loop: --restore --autosave 1 under three clients, SIGKILL at random moments, KQ_CRASH_KILLS (100) times;
each restart gives back what was acknowledged (README, "Restarts and crashes")."""

import glob, json, os, random, signal, sqlite3, threading, time

import kqservice
from kqservice import FolderTest, Service


def drive(service, ledger, prefix, seed):
    """Drives its share until the service dies. ledger: name -> {kind, root, parent, poses it may be at, state}."""
    rng = random.Random(seed)
    live = lambda *kinds: [n for n, o in ledger.items() if o["kind"] in kinds and o["state"] == "stored"]
    try:
        for count in range(1000000):
            name, r, x, tables = "%s%d" % (prefix, count), rng.random(), round(rng.uniform(-5, 5), 3), live("t")
            pose = [x, 0.0, 0.0, 0.0, 0.0, 0.0]
            if r < 0.3 or not tables:  # a table under World or a joint, or a cup on a table
                cup = tables and r < 0.15
                parent = rng.choice(tables if cup else ["World", "NeckPan"])
                ledger[name] = {"kind": "c" if cup else "t", "root": parent if cup else name, "parent": parent,
                                "poses": [x], "state": "maybe"}
                if service.world("storeObject", name, parent, pose, "frame", []) == 0:
                    ledger[name]["state"] = "stored"
            elif r < 0.75:  # a move, saved or not
                name, saved = rng.choice(live("t", "c")), r < 0.55
                ledger[name]["poses"].append(x)
                if service.world("updatePosition", name, pose, saved) == 0 and saved:
                    ledger[name]["poses"] = [x]
            elif r < 0.9 or len(tables) > 12:
                name = rng.choice(live("t", "c"))
                gone = [name] + [n for n, o in ledger.items() if o["parent"] == name and o["state"] != "cleared"]
                [ledger[n].update(state="clearing") for n in gone]
                if service.world("clearObject", name) == 0:
                    [ledger[n].update(state="cleared") for n in gone]
            else:
                service.world("save")
    except (OSError, AssertionError, ValueError):  # killed
        pass


class CrashLoopTest(FolderTest):
    def test_every_restart_gives_back_what_was_acknowledged(self):
        service = Service("--restore", "--autosave", "1")
        self.addCleanup(service.close)
        service.start()
        robot = {"World", "Robot", "Robot_Torso"} | set(service.world("getChildrenNames", "Robot_Torso"))
        ledger, rng, checked, losses, started = {}, random.Random(14), 0, [], time.monotonic()
        kills = int(os.environ.get("KQ_CRASH_KILLS", "100"))
        for kill in range(kills):
            # Each client drives new objects and a share of the old ones, a table with its cups.
            shares = [{n: o for n, o in ledger.items() if o["state"] == "stored" and hash(o["root"]) % 3 == i}
                      for i in range(3)]
            clients = [threading.Thread(target=drive, args=(service, share, "k%dn%d_" % (kill, i), rng.random()),
                                        daemon=True) for i, share in enumerate(shares)]
            for client in clients:
                client.start()
            time.sleep(rng.uniform(0.05, 0.5))
            service.process.send_signal(signal.SIGKILL)
            service.process.wait()
            service.stderr.close()
            [client.join() for client in clients]
            [ledger.update(share) for share in shares]
            for path in glob.glob(os.path.join(service.data_dir, "*.sqlite")):
                with sqlite3.connect(path) as db:
                    losses += [] if db.execute("PRAGMA integrity_check").fetchone()[0] == "ok" else [path + " broken"]
            service.start()
            checked += self.check(service, ledger, losses, robot)
        print("crash loop: %d kills, %d objects checked, %d losses, %.1f s"
              % (kills, checked, len(losses), time.monotonic() - started))
        self.assertEqual([], losses[:10])

    def check(self, service, ledger, losses, robot):  # then the world is the new truth
        names = [n for n, o in ledger.items() if o["state"] != "gone"]
        parents = self.batch(service, [("getObjectNames", [])] + [("getObjectParentName", [n]) for n in names])
        present = set(parents.pop(0)) - robot
        poses = self.batch(service, [("getPosition6D", [p, n]) for p, n in zip(parents, names)])
        for name, parent, pose in zip(names, parents, poses):
            entry, here = ledger[name], name in present
            if (entry["state"], here) in (("cleared", True), ("stored", False)) or here and (
                    parent != entry["parent"] or min(abs(pose[0] - x) for x in entry["poses"]) > 1e-3):
                losses.append("%s (%s) found %s under %s at %s" % (name, entry, here, parent, pose))
            entry["state"], entry["poses"] = ("stored", [pose[0]]) if here else ("gone", [])
        losses.extend("%s appeared" % n for n in present - set(names))
        return len(names)

    def batch(self, service, calls):
        answers = json.loads(service.post(json.dumps([{"jsonrpc": "2.0", "id": i, "params": p,
                                                       "method": "KQWorldRepresentation." + m}
                                                      for i, (m, p) in enumerate(calls)]))[1])
        return [a["result"] for a in sorted(answers, key=lambda a: a["id"])] if calls else []


if __name__ == "__main__":
    kqservice.main()
