// AttributeField: one typed column of an attribute: a field name and its
// SQLite declared type ("text", "int", "float", or any type text SQLite
// accepts).
#ifndef KQ_STORAGE_ATTRIBUTE_FIELD_H_
#define KQ_STORAGE_ATTRIBUTE_FIELD_H_

#include <string>

namespace boost {
namespace serialization {
class access;
}
}  // namespace boost

class AttributeField {
 public:
  AttributeField() = default;
  AttributeField(const std::string& name, const std::string& type) : name_(name), type_(type) {}
  const std::string& getName() const { return name_; }
  const std::string& getType() const { return type_; }
  bool operator==(const AttributeField& o) const { return name_ == o.name_ && type_ == o.type_; }

 private:
  friend class boost::serialization::access;
  template <class Archive>
  void serialize(Archive& ar, unsigned int version);  // world_archive.cpp

  std::string name_;
  std::string type_;
};

#endif  // KQ_STORAGE_ATTRIBUTE_FIELD_H_
