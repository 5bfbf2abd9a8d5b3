// CallSequence: marks a run of calls whose answers leave together (a
// JSON-RPC batch), so that work a module may put off until its answer is
// sent (a commit to disk) is done once for the whole run, at its end, before
// any answer of the run is sent.
//
// Invariants: a call inside a sequence may be answered only after the
// sequence ends; whoever opens one keeps the answers until its destructor has
// run. Outside a sequence deferToEnd refuses, and the caller does its work at
// once, as it would without this facility.
//
// Threading: a sequence belongs to the thread that opened it; a nested one
// joins the outer and runs nothing itself. The actions run on that thread,
// in the order first deferred, with no lock of this class held.
#ifndef KQ_MIDDLEWARE_CALL_SEQUENCE_H_
#define KQ_MIDDLEWARE_CALL_SEQUENCE_H_

#include <functional>
#include <string>

namespace KQ {

class CallSequence {
 public:
  CallSequence();
  ~CallSequence();  // the outermost one runs the deferred actions
  CallSequence(const CallSequence&) = delete;
  CallSequence& operator=(const CallSequence&) = delete;

  // Inside a sequence on this thread: keeps `action` for the sequence's end
  // under `key` (a later action under the same key replaces the earlier one,
  // in its place) and answers true. Outside one: false, nothing kept. An
  // action must not throw.
  static bool deferToEnd(const std::string& key, std::function<void()> action);
  // A sequence is open on this thread.
  static bool isOpen();

 private:
  bool outermost_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_CALL_SEQUENCE_H_
