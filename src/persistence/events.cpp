// The display list: the names of the objects that have display data, in the
// order they were added. The module keeps no copy of it: its value is the
// one the memory module holds under the DisplayRequired event name, read
// back with getData whenever it must change, and raised again only when it
// does change.
//
// The read-modify-raise is not locked: two concurrent changes can read the
// same list and the second raise wins. Callers may hold any of the module's
// locks; nothing here takes one.
#include <exception>

#include "middleware/memory_proxy.h"
#include "module/module_log.h"
#include "module/world_representation.h"

namespace KQ {

namespace {

bool isName(const KQValue& element, const std::string& name) {
  return element.isString() && element.toString() == name;
}

}  // namespace

void KQWorldRepresentation::addObjectToDisplayEvent(const std::string& name) {
  try {
    KQValue list = memoryProxy_->getData(displayRequiredEventName_);
    // Any value is taken as a list; one that is not an array holds no names.
    if (!list.isArray()) list.arraySetSize(0);
    for (int i = 0; i < list.getSize(); ++i)
      if (isName(list[i], name)) return;
    list.arrayPush(KQValue(name));
    memoryProxy_->raiseEvent(displayRequiredEventName_, list);
  } catch (const std::exception& e) {
    // The attribute operation that got here still succeeds.
    KQWR_WARNING("xAddObjectToDisplayEvent") << "Could not update display event for object " << name << ": "
                                             << e.what() << ". Object will not be displayed.";
  }
}

void KQWorldRepresentation::removeObjectFromDisplayEvent(const std::string& name) {
  try {
    const KQValue list = memoryProxy_->getData(displayRequiredEventName_);
    KQValue kept;
    kept.arraySetSize(0);
    bool dropped = false;
    if (list.isArray()) {
      // Every occurrence goes, in case the list ever held the name twice.
      for (int i = 0; i < list.getSize(); ++i) {
        if (isName(list[i], name))
          dropped = true;
        else
          kept.arrayPush(list[i]);
      }
    }
    if (dropped) memoryProxy_->raiseEvent(displayRequiredEventName_, kept);
  } catch (const std::exception& e) {
    KQWR_WARNING("xRemoveObjectFromDisplayEvent") << "Could not update display event for object " << name << ": "
                                                  << e.what() << ". Object will not be removed from display.";
  }
}

}  // namespace KQ
