// KQTools::mainFunction: the body of a module's own process. It reads the
// command line, starts a broker, creates the built-in KQMemory and the
// simulated KQMotion (unless --parent names a broker that hosts them), then
// the module through createModule, and only then opens the network front
// (JSON-RPC over HTTP and WebSocket). It returns 0 once SIGINT or SIGTERM has
// stopped the server and exited every module (the world is saved then).
//
// A start that cannot work (bad option, port taken, unreadable robot
// description, unwritable data folder, a non-loopback address without a
// token, an unreachable parent, a module that fails to start) prints one line
// "<processName>: <reason>" on stderr and ends the process at once with a
// non-zero status (2 for a bad command line, 1 otherwise); --help prints the
// options and returns 0.
//
// A process named "kq<component>" keeps its files in the data folder of
// <component> (kqworldrepresentation -> "worldrepresentation").
//
// Threading: call once, from the main thread, before any other thread is
// started: SIGINT and SIGTERM are blocked in every thread and taken with
// sigwait by the main thread, so no work runs in a signal handler.
#ifndef KQ_SERVICE_PROCESS_ENTRY_H_
#define KQ_SERVICE_PROCESS_ENTRY_H_

#include <functional>
#include <memory>
#include <string>

namespace KQ {
class KQBroker;
}

namespace KQTools {

int mainFunction(const std::string& processName, int argc, char* argv[],
                 std::function<int(std::shared_ptr<KQ::KQBroker>)> createModule);

}  // namespace KQTools

#endif  // KQ_SERVICE_PROCESS_ENTRY_H_
