"""The JSON-RPC face of the real binary: every error code, notifications and
batches, and the refusals that protect a robot from a careless network
(token, Origin, Content-Type, size, depth), driven by curl and http.client."""

import json
import unittest

import kqservice
from kqservice import Service, run_curl


def request(method, params=None, request_id=1):
    message = {"jsonrpc": "2.0", "method": method}
    if request_id is not None:
        message["id"] = request_id
    if params is not None:
        message["params"] = params
    return message


class ErrorCodesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.service = Service().start()

    @classmethod
    def tearDownClass(cls):
        cls.service.stop()
        cls.service.cleanup()

    def curl(self, body, headers=None):
        status, text = run_curl(self.service.url + "/rpc", body, headers)
        return status, (json.loads(text) if text else None)

    def test_every_error_code(self):
        # Case: not JSON at all: -32700, answered with a null id.
        status, reply = self.curl("{not json")
        self.assertEqual(status, 200)
        self.assertEqual(reply["id"], None)
        self.assertEqual(reply["error"]["code"], -32700)

        # Case: JSON that is no request (no method): -32600.
        _, reply = self.curl(json.dumps({"jsonrpc": "2.0", "id": 4}))
        self.assertEqual(reply["error"]["code"], -32600)

        # Case: an unknown method of a known module, and an unknown module: -32601.
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.teleport", [])))
        self.assertEqual(reply["error"]["code"], -32601)
        _, reply = self.curl(json.dumps(request("KQNowhere.getData", ["x"])))
        self.assertEqual(reply["error"]["code"], -32601)

        # Case: a wrong type and a wrong count: -32602, before the module runs.
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.getPosition", [1, "cup"])))
        self.assertEqual(reply["error"]["code"], -32602)
        self.assertIn("1", reply["error"]["message"])
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.getPosition", ["World"])))
        self.assertEqual(reply["error"]["code"], -32602)
        # Case: an int beyond 32 bits and a JSON object are no values: -32602.
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.getChildrenNames", [2 ** 31])))
        self.assertEqual(reply["error"]["code"], -32602)
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.getChildrenNames", [{"name": "World"}])))
        self.assertEqual(reply["error"]["code"], -32602)

        # Case: a KQError raised by the module: -32000 with its sentence.
        _, reply = self.curl(json.dumps(request("KQWorldRepresentation.getAttributesFromCategory", ["Cups"])))
        self.assertEqual(reply["error"]["code"], -32000)
        self.assertIn("Category Cups does not exist, cannot retrieve attributes.", reply["error"]["message"])
        # ... and one raised by a built-in module.
        _, reply = self.curl(json.dumps(request("KQMemory.getData", ["Object/ghost"])))
        self.assertEqual(reply["error"]["code"], -32000)
        self.assertIn("There is no data under key Object/ghost.", reply["error"]["message"])
        _, reply = self.curl(json.dumps(request("KQMotion.getTransform", ["Tail", 0, True])))
        self.assertIn("Unknown body part Tail.", reply["error"]["message"])

        # Case: JSON nested 65 deep is refused as an invalid request.
        deep = "[" * 65 + "]" * 65
        _, reply = self.curl('{"jsonrpc":"2.0","id":9,"method":"KQMemory.insertData","params":["k",%s]}' % deep)
        self.assertEqual(reply["error"]["code"], -32600)

    def test_notifications_and_batches(self):
        # Case: a notification runs but is not answered (HTTP 204, no body).
        status, reply = self.curl(json.dumps(request("KQWorldRepresentation.createObjectCategory",
                                                     ["notified", False], request_id=None)))
        self.assertEqual((status, reply), (204, None))
        self.assertTrue(self.service.world("objectCategoryExists", "notified"))

        # Case: a batch answers its calls by id, skips its notification, and
        # a failing member does not fail the others.
        batch = [request("KQWorldRepresentation.getRootName", [], 1),
                 request("KQMemory.insertData", ["batch/key", 5], None),
                 request("KQWorldRepresentation.nothing", [], 2),
                 request("KQWorldRepresentation.findObject", ["Robot_Torso"], 3)]
        status, replies = self.curl(json.dumps(batch))
        self.assertEqual(status, 200)
        by_id = {reply["id"]: reply for reply in replies}
        self.assertEqual(sorted(by_id), [1, 2, 3])
        self.assertEqual(by_id[1]["result"], "World")
        self.assertEqual(by_id[2]["error"]["code"], -32601)
        self.assertEqual(by_id[3]["result"], True)
        self.assertEqual(self.service.call("KQMemory.getData", "batch/key"), 5)

        # Case: an empty batch is one invalid request.
        _, reply = self.curl("[]")
        self.assertEqual(reply["error"]["code"], -32600)

    def test_values_keep_their_kind(self):
        # Case: 1.0 goes in as a float and comes back written as a float; 1
        # stays an int; null, strings and nested lists survive the trip.
        value = [1.0, 1, "one", None, [0.1, [True]]]
        self.assertIsNone(self.service.call("KQMemory.insertData", "kinds", value))
        status, text = run_curl(self.service.url + "/rpc", json.dumps(request("KQMemory.getData", ["kinds"])))
        self.assertIn('"result":[1.0,1,"one",null,[0.1,[true]]]', text.replace(" ", ""))

    def test_broker_lists_modules_and_methods(self):
        self.assertEqual(self.service.call("broker.modules"), ["KQMemory", "KQMotion", "KQWorldRepresentation"])
        methods = self.service.call("broker.methods", "KQWorldRepresentation")
        self.assertEqual(len(methods), 35)
        self.assertEqual(methods[0], ["addAttributeToCategory", "Add an attribute to a category."])
        self.assertEqual(methods[8], ["load", ""])


class RefusalsTest(unittest.TestCase):
    def test_token_is_required_everywhere(self):
        with Service(token="s3cret") as service:
            body = json.dumps(request("broker.modules"))
            url = service.url + "/rpc"
            # Case: no token, a wrong token: 401, nothing runs.
            self.assertEqual(run_curl(url, body)[0], 401)
            self.assertEqual(run_curl(url, body, {"Content-Type": "application/json",
                                                  "Authorization": "Bearer guess"})[0], 401)
            # Case: the right token, as a header or as a query parameter.
            self.assertEqual(run_curl(url, body, {"Content-Type": "application/json",
                                                  "Authorization": "Bearer s3cret"})[0], 200)
            self.assertEqual(run_curl(url + "?token=s3cret", body)[0], 200)
            # Case: kq passes the token on; without it kq fails with status 1.
            done = kqservice.run_kq("call", "KQWorldRepresentation.getRootName", url=service.url, token="s3cret")
            self.assertEqual(done.stdout.strip(), '"World"')
            done = kqservice.run_kq("call", "KQWorldRepresentation.getRootName", url=service.url, check=False)
            self.assertEqual(done.returncode, 1)
            self.assertTrue(done.stderr.startswith("kq: "), done.stderr)

    def test_token_from_file_and_environment(self):
        # Case: KQ_TOKEN in the environment protects the service too.
        with Service(env={"KQ_TOKEN": "from-env"}) as service:
            status, _, _ = service.post(json.dumps(request("broker.modules")))
            self.assertEqual(status, 401)
            status, _, _ = service.post(json.dumps(request("broker.modules")),
                                        {"Authorization": "Bearer from-env"})
            self.assertEqual(status, 200)

    def test_origin_content_type_and_size(self):
        with Service("--max-message", "2000") as service:
            body = json.dumps(request("broker.modules"))
            # Case: a page of another site may not drive the robot.
            status, _, _ = service.post(body, {"Origin": "http://evil.example"})
            self.assertEqual(status, 403)
            # Case: a page served by the service's own host and port may.
            status, _, _ = service.post(body, {"Origin": "http://127.0.0.1:%d" % service.port})
            self.assertEqual(status, 200)
            # Case: a form post is no JSON-RPC call.
            status, _, _ = service.post(body, {"Content-Type": "application/x-www-form-urlencoded"})
            self.assertEqual(status, 415)
            # Case: a body over --max-message is refused; one under it passes.
            status, _, _ = service.post(json.dumps(request("KQMemory.insertData", ["big", "x" * 3000])))
            self.assertEqual(status, 413)
            status, _, _ = service.post(json.dumps(request("KQMemory.insertData", ["small", "x" * 1000])))
            self.assertEqual(status, 200)


if __name__ == "__main__":
    kqservice.main()
