// describeAttributes: the KQValue form in which callers see a category's
// attributes: one element per attribute, in the category's order,
// [attribute name, [[field name, field type], ...]], the fields in column
// order (the special fields first). A category without attributes gives an
// empty array, never an invalid value.
//
// Threading: reads the category; the caller holds the category lock.
#ifndef KQ_STORAGE_ATTRIBUTE_DESCRIPTION_H_
#define KQ_STORAGE_ATTRIBUTE_DESCRIPTION_H_

#include "middleware/value.h"
#include "storage/object_category.h"

namespace KQ {

KQValue describeAttributes(const ObjectCategory& category);

}  // namespace KQ

#endif  // KQ_STORAGE_ATTRIBUTE_DESCRIPTION_H_
