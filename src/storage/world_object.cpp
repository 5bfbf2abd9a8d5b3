#include "storage/world_object.h"

// Out of line so that the vtable has one home (the archive registers the
// derived type and needs a key function).
WorldObject::~WorldObject() = default;

std::string WorldObject::getCategoryName() const {
  return category_ ? category_->getCategoryName() : std::string();
}
