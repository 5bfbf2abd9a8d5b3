#include "persistence/archive_validator.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include <boost/archive/basic_archive.hpp>

namespace KQ {

namespace {

// The archive's documents are ten levels deep at most; anything deeper is
// not ours and is refused before it can exhaust the stack of a recursive
// check.
const std::size_t kMaxDepth = 24;

struct Element {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<Element> children;
  std::string text;  // raw, entities left as they are
};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool isNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isNameChar(char c) { return isNameStart(c) || (c >= '0' && c <= '9'); }

bool isBlankText(const std::string& text) {
  for (char c : text)
    if (!isBlank(c)) return false;
  return true;
}

// A small XML reader for the subset the archive writer emits: a prolog, then
// one tree of elements with double-quoted attributes and text. No comments,
// no processing instructions inside, no self-closing tags.
class TreeReader {
 public:
  explicit TreeReader(const std::string& text) : text_(text) {}

  std::string read(Element& root) {
    xSkipBlanks();
    if (!xSkipPast("<?xml", "?>")) return "no XML declaration";
    xSkipBlanks();
    if (text_.compare(pos_, 9, "<!DOCTYPE") == 0 && !xSkipPast("<!DOCTYPE", ">")) return "an unclosed DOCTYPE";
    xSkipBlanks();

    std::vector<Element*> open;
    bool rootDone = false;
    while (!rootDone) {
      if (pos_ >= text_.size()) return "the document ends inside <" + (open.empty() ? std::string("?") : open.back()->name) + ">";
      if (text_[pos_] != '<') {
        if (open.empty()) return "text outside the root element";
        const std::size_t end = text_.find('<', pos_);
        // Blanks between elements are not kept: the text of a collection of
        // many items would grow with each and be scanned again for each.
        const std::string chunk = text_.substr(pos_, end == std::string::npos ? std::string::npos : end - pos_);
        if (open.back()->children.empty() || !isBlankText(chunk)) open.back()->text += chunk;
        // The library's reader knows the five entities the writer makes and
        // throws halfway through a record on anything else, leaking what it
        // had built of that record.
        // Searched within this text only: a search to the end of the document
        // for every text would make a large archive quadratic.
        const std::size_t textEnd = end == std::string::npos ? text_.size() : end;
        for (std::size_t amp = pos_; (amp = xFindAmpersand(amp, textEnd)) < textEnd; ++amp) {
          static const char* const kEntities[] = {"&lt;", "&gt;", "&amp;", "&quot;", "&apos;"};
          bool known = false;
          for (const char* entity : kEntities) known = known || text_.compare(amp, std::strlen(entity), entity) == 0;
          if (!known) return "a \"&\" that is none of the writer's entities";
        }
        pos_ = end == std::string::npos ? text_.size() : end;
        continue;
      }
      if (text_.compare(pos_, 2, "</") == 0) {
        pos_ += 2;
        const std::string name = xName();
        if (open.empty() || name != open.back()->name)
          return "end tag </" + name + "> where </" + (open.empty() ? std::string("?") : open.back()->name) +
                 "> belongs";
        xSkipBlanks();
        if (pos_ >= text_.size() || text_[pos_] != '>') return "a broken end tag </" + name + ">";
        ++pos_;
        open.pop_back();
        rootDone = open.empty();
        continue;
      }
      ++pos_;
      Element* element = nullptr;
      if (open.empty()) {
        if (!root.name.empty()) return "a second root element";
        element = &root;
      } else {
        if (!isBlankText(open.back()->text)) return "text mixed with elements in <" + open.back()->name + ">";
        open.back()->children.emplace_back();
        element = &open.back()->children.back();
      }
      if (open.size() >= kMaxDepth) return "elements nested too deep";
      element->name = xName();
      if (element->name.empty()) return "a broken start tag";
      const std::string error = xAttributes(*element);
      if (!error.empty()) return error;
      open.push_back(element);
    }
    xSkipBlanks();
    if (pos_ != text_.size()) return "content after the root element";
    return "";
  }

 private:
  void xSkipBlanks() {
    while (pos_ < text_.size() && isBlank(text_[pos_])) ++pos_;
  }

  bool xSkipPast(const char* start, const char* end) {
    if (text_.compare(pos_, std::char_traits<char>::length(start), start) != 0) return false;
    const std::size_t found = text_.find(end, pos_);
    if (found == std::string::npos) return false;
    pos_ = found + std::char_traits<char>::length(end);
    return true;
  }

  std::string xName() {
    const std::size_t start = pos_;
    if (pos_ < text_.size() && isNameStart(text_[pos_])) {
      ++pos_;
      while (pos_ < text_.size() && isNameChar(text_[pos_])) ++pos_;
    }
    return text_.substr(start, pos_ - start);
  }

  // name="value" pairs up to the closing '>' of a start tag.
  std::string xAttributes(Element& element) {
    for (;;) {
      xSkipBlanks();
      if (pos_ >= text_.size()) return "a start tag <" + element.name + "> that never closes";
      if (text_[pos_] == '>') {
        ++pos_;
        return "";
      }
      const std::string name = xName();
      if (name.empty()) return "a broken attribute in <" + element.name + ">";
      if (pos_ + 1 >= text_.size() || text_[pos_] != '=' || text_[pos_ + 1] != '"')
        return "a broken attribute " + name + " in <" + element.name + ">";
      pos_ += 2;
      const std::size_t end = text_.find_first_of("\"<", pos_);
      if (end == std::string::npos || text_[end] != '"') return "a broken attribute " + name + " in <" + element.name + ">";
      element.attributes.emplace_back(name, text_.substr(pos_, end - pos_));
      pos_ = end + 1;
    }
  }

  const std::string& text_;
  std::size_t xFindAmpersand(std::size_t from, std::size_t end) const {
    const void* found = std::memchr(text_.data() + from, '&', end - from);
    return found == nullptr ? end : static_cast<std::size_t>(static_cast<const char*>(found) - text_.data());
  }

  std::size_t pos_ = 0;
};

// Digits as the writer prints them, nothing around them: the library's
// reader throws halfway through a record on anything else (a blank inside an
// attribute), leaking what it had built.
bool parseInteger(const std::string& text, bool allowNegative, int64_t& value) {
  std::size_t begin = 0;
  const std::size_t end = text.size();
  bool negative = false;
  if (begin < end && text[begin] == '-' && allowNegative) {
    negative = true;
    ++begin;
  }
  if (begin == end || end - begin > 10) return false;
  value = 0;
  for (std::size_t i = begin; i < end; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  if (negative) value = -value;
  return value >= INT32_MIN && value <= INT32_MAX;
}

// A float as the writer prints it and the library's stream reads it back:
// the whole text, finite, within float range.
bool parseFloat(const std::string& text) {
  if (text.empty() || isBlank(text.front()) || isBlank(text.back())) return false;
  char* end = nullptr;
  errno = 0;
  const float value = std::strtof(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno == 0 && std::isfinite(value);
}

// The C++ types of the records, by which the library numbers its classes.
enum class Type {
  kNodesMap,
  kNodesItem,
  kSharedObject,
  kObject,
  kSharedCategory,
  kCategory,
  kStringSet,
  kAttributeVector,
  kAttribute,
  kFieldVector,
  kField,
  kEdgeVector,
  kEdge,
  kPose,
};

// Walks the tree in document order, as the library reads it, and keeps the
// class ids and object ids it has seen declared.
class ShapeChecker {
 public:
  std::string check(const Element& root, ArchiveKind kind) {
    if (root.name != "boost_serialization") return "the root element is <" + root.name + ">";
    if (root.attributes.size() != 2 || xAttribute(root, "signature") != "serialization::archive")
      return "not a serialization archive";
    int64_t version = 0;
    if (!parseInteger(xAttribute(root, "version"), false, version) || version < 4 ||
        version > static_cast<int64_t>(boost::archive::BOOST_ARCHIVE_VERSION()))
      return "an archive version this program cannot read";
    // The record, then the save's stamp (absent from archives written before
    // the stamp existed).
    const std::size_t count = root.children.size();
    if ((count != 1 && count != 4) || !isBlankText(root.text)) return "not one record and its save stamp";
    const Element& record = root.children[0];
    if (kind == ArchiveKind::kNodes) {
      if (xExpectName(record, "nodes")) xCollection(record, Type::kNodesMap, &ShapeChecker::xNodesItem);
    } else {
      if (xExpectName(record, "edges")) xCollection(record, Type::kEdgeVector, &ShapeChecker::xEdge);
    }
    const char* stampNames[] = {"saveId", "timeS", "timeUS"};
    for (std::size_t i = 1; i < count && error_.empty(); ++i) {
      // Unsigned 64-bit numbers: at most 18 digits always fit.
      const std::string& text = root.children[i].text;
      if (xLeaf(root.children[i], stampNames[i - 1]) &&
          (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos))
        xFail("<" + root.children[i].name + "> is not a number");
    }
    if (stamped != nullptr) *stamped = count == 4;
    return error_;
  }

  bool* stamped = nullptr;

 private:
  using ItemCheck = bool (ShapeChecker::*)(const Element&);

  bool xFail(const std::string& error) {
    if (error_.empty()) error_ = error;
    return false;
  }

  static std::string xAttribute(const Element& element, const char* name) {
    for (const auto& attribute : element.attributes)
      if (attribute.first == name) return attribute.second;
    return std::string();
  }

  static bool xHas(const Element& element, const char* name) {
    for (const auto& attribute : element.attributes)
      if (attribute.first == name) return true;
    return false;
  }

  bool xExpectName(const Element& element, const char* name) {
    if (element.name != name) return xFail("element <" + element.name + "> where <" + name + "> belongs");
    return true;
  }

  bool xChildCount(const Element& element, std::size_t count) {
    if (element.children.size() != count)
      return xFail("<" + element.name + "> holds " + std::to_string(element.children.size()) + " elements, not " +
                   std::to_string(count));
    if (count > 0 && !isBlankText(element.text)) return xFail("text mixed with elements in <" + element.name + ">");
    return true;
  }

  // A primitive value: no attributes, no elements.
  bool xLeaf(const Element& element, const char* name) {
    if (!xExpectName(element, name)) return false;
    if (!element.attributes.empty()) return xFail("attributes on <" + element.name + ">");
    if (!element.children.empty()) return xFail("elements inside <" + element.name + ">");
    return true;
  }

  bool xIntegerLeaf(const Element& element, const char* name, int64_t& value, bool allowNegative) {
    if (!xLeaf(element, name)) return false;
    if (!parseInteger(element.text, allowNegative, value)) return xFail("<" + element.name + "> is not a number");
    return true;
  }

  static const char* xTrackingOf(Type type) { return (type == Type::kObject || type == Type::kCategory) ? "1" : "0"; }
  static const char* xVersionOf(Type type) {
    return (type == Type::kSharedObject || type == Type::kSharedCategory) ? "1" : "0";
  }

  // The class attributes of an element held by value: the first element of
  // its type declares the next class id, the others carry none.
  bool xClassInfo(const Element& element, Type type) {
    auto declared = classIds_.find(type);
    if (declared != classIds_.end()) {
      if (!element.attributes.empty()) return xFail("class attributes repeated on <" + element.name + ">");
      return true;
    }
    if (element.attributes.size() != 3 || xAttribute(element, "class_id") != std::to_string(nextClassId_) ||
        xAttribute(element, "tracking_level") != xTrackingOf(type) || xAttribute(element, "version") != xVersionOf(type))
      return xFail("unexpected class attributes on <" + element.name + ">");
    classIds_[type] = nextClassId_++;
    return true;
  }

  enum class PointerKind { kNull, kReference, kNew };

  // The attributes of a "px" element: a null pointer, a reference to an
  // earlier object of the same type, or a new object (declaring its class
  // the first time) with the next object id.
  bool xPointer(const Element& element, Type type, PointerKind& kind) {
    if (!xExpectName(element, "px")) return false;
    if (xAttribute(element, "class_id") == "-1") {
      if (element.attributes.size() != 1 || !element.children.empty()) return xFail("a broken null pointer");
      kind = PointerKind::kNull;
      return true;
    }
    std::size_t classAttributes = 0;
    auto declared = classIds_.find(type);
    if (declared == classIds_.end()) {
      if (xAttribute(element, "class_id") != std::to_string(nextClassId_) ||
          xAttribute(element, "tracking_level") != xTrackingOf(type) || xAttribute(element, "version") != xVersionOf(type))
        return xFail("unexpected class attributes on a pointer");
      classIds_[type] = nextClassId_++;
      classAttributes = 3;
    } else {
      if (xAttribute(element, "class_id_reference") != std::to_string(declared->second))
        return xFail("a pointer to a class of another type");
      classAttributes = 1;
    }
    const std::string objectId = xAttribute(element, "object_id");
    const std::string reference = xAttribute(element, "object_id_reference");
    if (element.attributes.size() != classAttributes + 1) return xFail("unexpected attributes on a pointer");
    if (xHas(element, "object_id")) {
      if (objectId != "_" + std::to_string(objects_.size())) return xFail("object id " + objectId + " out of sequence");
      objects_.push_back(type);
      kind = PointerKind::kNew;
      return true;
    }
    if (classAttributes != 1 || !xHas(element, "object_id_reference")) return xFail("a pointer without an object id");
    int64_t index = -1;
    if (reference.size() < 2 || reference[0] != '_' || !parseInteger(reference.substr(1), false, index) ||
        index >= static_cast<int64_t>(objects_.size()) || objects_[static_cast<std::size_t>(index)] != type)
      return xFail("a reference " + reference + " to no earlier object of its type");
    if (!element.children.empty() || !isBlankText(element.text)) return xFail("content in a reference");
    kind = PointerKind::kReference;
    return true;
  }

  // count, item_version, then exactly count item elements.
  bool xCollection(const Element& element, Type type, ItemCheck item) {
    if (!xClassInfo(element, type)) return false;
    if (element.children.size() < 2) return xFail("<" + element.name + "> misses its count");
    int64_t count = 0;
    int64_t itemVersion = 0;
    if (!xIntegerLeaf(element.children[0], "count", count, false)) return false;
    if (!xIntegerLeaf(element.children[1], "item_version", itemVersion, false)) return false;
    if (itemVersion != 0) return xFail("an unknown item version in <" + element.name + ">");
    if (static_cast<std::size_t>(count) != element.children.size() - 2)
      return xFail("the count of <" + element.name + "> does not match its items");
    if (!isBlankText(element.text)) return xFail("text mixed with elements in <" + element.name + ">");
    for (std::size_t i = 2; i < element.children.size(); ++i)
      if (!(this->*item)(element.children[i])) return false;
    return true;
  }

  bool xStringItem(const Element& element) { return xLeaf(element, "item"); }

  bool xField(const Element& element) {
    return xExpectName(element, "item") && xClassInfo(element, Type::kField) && xChildCount(element, 2) &&
           xLeaf(element.children[0], "name") && xLeaf(element.children[1], "type");
  }

  bool xAttributeRecord(const Element& element) {
    return xExpectName(element, "item") && xClassInfo(element, Type::kAttribute) && xChildCount(element, 3) &&
           xLeaf(element.children[0], "name") && xExpectName(element.children[1], "fieldNames") &&
           xCollection(element.children[1], Type::kStringSet, &ShapeChecker::xStringItem) &&
           xExpectName(element.children[2], "fields") &&
           xCollection(element.children[2], Type::kFieldVector, &ShapeChecker::xField);
  }

  bool xCategory(const Element& element) {
    if (!xExpectName(element, "category") || !xClassInfo(element, Type::kSharedCategory) || !xChildCount(element, 1))
      return false;
    const Element& px = element.children[0];
    PointerKind kind;
    if (!xPointer(px, Type::kCategory, kind)) return false;
    if (kind != PointerKind::kNew) return true;
    return xChildCount(px, 3) && xLeaf(px.children[0], "name") && xExpectName(px.children[1], "attributeNames") &&
           xCollection(px.children[1], Type::kStringSet, &ShapeChecker::xStringItem) &&
           xExpectName(px.children[2], "attributes") &&
           xCollection(px.children[2], Type::kAttributeVector, &ShapeChecker::xAttributeRecord);
  }

  bool xNodesItem(const Element& element) {
    int64_t id = 0;
    if (!xExpectName(element, "item") || !xClassInfo(element, Type::kNodesItem) || !xChildCount(element, 2) ||
        !xIntegerLeaf(element.children[0], "first", id, true))
      return false;
    // A second record of one id would be dropped by the map while the
    // library still tracks its object: a later reference would dangle.
    if (!nodeIds_.insert(id).second) return xFail("node " + std::to_string(id) + " saved twice");
    const Element& second = element.children[1];
    if (!xExpectName(second, "second") || !xClassInfo(second, Type::kSharedObject) || !xChildCount(second, 1))
      return false;
    const Element& px = second.children[0];
    PointerKind kind;
    if (!xPointer(px, Type::kObject, kind)) return false;
    if (kind != PointerKind::kNew) return true;
    return xChildCount(px, 2) && xLeaf(px.children[0], "name") && xCategory(px.children[1]);
  }

  bool xEdge(const Element& element) {
    int64_t id = 0;
    if (!xExpectName(element, "item") || !xClassInfo(element, Type::kEdge) || !xChildCount(element, 5) ||
        !xIntegerLeaf(element.children[0], "parentId", id, true) || !xLeaf(element.children[1], "parentName") ||
        !xIntegerLeaf(element.children[2], "childId", id, true) || !xLeaf(element.children[3], "childName"))
      return false;
    const Element& pose = element.children[4];
    if (!xExpectName(pose, "position") || !xClassInfo(pose, Type::kPose) || !xChildCount(pose, 6)) return false;
    const char* names[] = {"x", "y", "z", "wx", "wy", "wz"};
    for (std::size_t i = 0; i < 6; ++i) {
      if (!xLeaf(pose.children[i], names[i])) return false;
      if (!parseFloat(pose.children[i].text)) return xFail("<" + pose.children[i].name + "> is not a float");
    }
    return true;
  }

  std::set<int64_t> nodeIds_;
  std::map<Type, int> classIds_;
  int nextClassId_ = 0;
  std::vector<Type> objects_;  // object id -> type of the object declared with it
  std::string error_;
};

}  // namespace

std::string validateArchiveText(const std::string& text, ArchiveKind kind, bool* stamped) {
  Element root;
  const std::string error = TreeReader(text).read(root);
  if (!error.empty()) return error;
  ShapeChecker checker;
  checker.stamped = stamped;
  return checker.check(root, kind);
}

}  // namespace KQ
