// The world-info records: attributes keep column order, categories hand the
// database the column list it creates tables from, objects name their
// category. The column list is checked against a real SQLite file, since a
// list that reads right but does not create the table is the fault to catch.
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "storage/database_manager.h"
#include "storage/object_category.h"
#include "storage/world_object.h"
#include "support/temp_dir.h"

namespace KQ {
namespace {

ObjectAttribute withSpecialFields(const std::string& name) {
  ObjectAttribute attribute(name);
  attribute.addField("ObjectName", "text");
  attribute.addField("TimeS", "int");
  attribute.addField("TimeUS", "int");
  return attribute;
}

std::vector<std::string> fieldNames(const ObjectAttribute& attribute) {
  std::vector<std::string> names;
  for (const AttributeField& field : attribute.getFields()) names.push_back(field.getName());
  return names;
}

TEST(ObjectAttributeTest, FieldsKeepTheOrderTheyWereAddedIn) {
  ObjectAttribute handle = withSpecialFields("Handle");
  handle.addField("side", "text");
  handle.addField("angle", "float");

  // Case: the order of calls is the column order, special fields first.
  EXPECT_EQ((std::vector<std::string>{"ObjectName", "TimeS", "TimeUS", "side", "angle"}), fieldNames(handle));
  EXPECT_EQ(AttributeField("angle", "float"), handle.getFields()[4]);
  EXPECT_EQ("ObjectName, TimeS, TimeUS, side, angle", handle.getFieldList());
  EXPECT_TRUE(handle.hasField("side"));
  EXPECT_FALSE(handle.hasField("Side"));

  // Case: a name given twice is kept twice; refusing it is the caller's call.
  handle.addField("side", "int");
  EXPECT_EQ(6u, handle.getFields().size());

  // Case: a copy is independent of the original.
  ObjectAttribute copy(handle);
  copy.addField("extra", "int");
  EXPECT_EQ(6u, handle.getFields().size());
  EXPECT_FALSE(handle.hasField("extra"));

  // Case: no fields, no list.
  EXPECT_EQ("", ObjectAttribute("Empty").getFieldList());
}

TEST(ObjectCategoryTest, AttributesAreLookedUpByNameAndReplacedWhole) {
  ObjectCategory cups("Cups");
  ObjectAttribute display = withSpecialFields("Display");
  display.addField("colorR", "float");
  cups.addAttribute(display);
  cups.addAttribute(withSpecialFields("positions"));

  // Case: listed in the order added, each once.
  ASSERT_EQ(2u, cups.getAttributes().size());
  EXPECT_EQ("Display", cups.getAttributes()[0].getName());
  EXPECT_EQ("positions", cups.getAttributes()[1].getName());
  EXPECT_TRUE(cups.hasAttribute("Display"));
  EXPECT_FALSE(cups.hasAttribute("display"));

  // Case: adding a name again replaces the stored copy, not duplicates it.
  display.addField("model", "text");
  cups.addAttribute(display);
  ASSERT_EQ(2u, cups.getAttributes().size());
  ObjectAttribute out("untouched");
  cups.getAttribute("Display", out);
  EXPECT_EQ("Display", out.getName());
  EXPECT_TRUE(out.hasField("model"));

  // Case: the stored copy does not follow later changes of the caller's.
  display.addField("scaleX", "float");
  EXPECT_FALSE(cups.findAttribute("Display")->hasField("scaleX"));

  // Case: an unknown name leaves `out` as it was.
  ObjectAttribute kept("kept");
  cups.getAttribute("Weight", kept);
  EXPECT_EQ("kept", kept.getName());
  EXPECT_EQ(nullptr, cups.findAttribute("Weight"));
  EXPECT_EQ("", cups.getAttributeTable("Weight"));
}

TEST(ObjectCategoryTest, AttributeTableCreatesTheTableItDescribes) {
  test::TempDir dir;
  ObjectCategory cups("Cups");
  ObjectAttribute positions = withSpecialFields("positions");
  positions.addField("ParentName", "text");
  positions.addField("QuatW", "float");
  cups.addAttribute(positions);

  // Case: names double-quoted, types as declared, in field order.
  EXPECT_EQ("\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"ParentName\" text, \"QuatW\" float",
            cups.getAttributeTable("positions"));

  // Case: field names SQLite would otherwise misread (a keyword, a space, a
  // double quote) still make one column each, and the declared type of a
  // user attribute can be any type text SQLite accepts.
  ObjectAttribute odd = withSpecialFields("Odd");
  odd.addField("order", "text");
  odd.addField("two words", "varchar(20)");
  odd.addField("say \"hi\"", "double precision");
  cups.addAttribute(odd);
  EXPECT_EQ("\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"order\" text, \"two words\" varchar(20), "
            "\"say \"\"hi\"\"\" double precision",
            cups.getAttributeTable("Odd"));

  KQDatabaseManager db(dir.file("Cups.sqlite"), true);
  ASSERT_EQ(0, db.createTable("positions", cups.getAttributeTable("positions")));
  ASSERT_EQ(0, db.createTable("Odd", cups.getAttributeTable("Odd")));
  KQValue row(std::vector<KQValue>{
      KQValue(std::vector<KQValue>{KQValue("order"), KQValue("first")}),
      KQValue(std::vector<KQValue>{KQValue("two words"), KQValue(12)}),
      KQValue(std::vector<KQValue>{KQValue("say \"hi\""), KQValue(0.5f)}),
      KQValue(std::vector<KQValue>{KQValue("ObjectName"), KQValue("cup")}),
  });
  ASSERT_EQ(0, db.insertRow("Odd", row));
  KQValue rows = db.select("Odd", "ObjectName='cup'", "*");
  ASSERT_EQ(1, rows.getSize());
  ASSERT_EQ(6, rows[0].getSize());
  EXPECT_EQ(KQValue("first"), rows[0][3]);
  EXPECT_EQ(KQValue("12"), rows[0][4]);
  EXPECT_EQ(KQValue(0.5f), rows[0][5]);
}

TEST(WorldObjectTest, ObjectNamesItsSharedCategory) {
  auto cups = boost::make_shared<ObjectCategory>("Cups");

  // Case: the category outlives the map entry through its objects.
  std::unique_ptr<GraphNodeData> node(new WorldObject("cup", cups));
  cups.reset();
  auto* cup = dynamic_cast<WorldObject*>(node.get());
  ASSERT_NE(nullptr, cup);
  EXPECT_EQ("cup", cup->getName());
  EXPECT_EQ("Cups", cup->getCategoryName());
  EXPECT_EQ(1, cup->getCategory().use_count());

  // Case: an object loaded without a category answers an empty name.
  WorldObject bare;
  EXPECT_EQ("", bare.getCategoryName());
  EXPECT_EQ("", WorldObject("plate", nullptr).getCategoryName());
}

}  // namespace
}  // namespace KQ
