// Category databases: one SQLite file per category in the data directory
// (data directory + "/" + category + ".sqlite"), one table per attribute,
// every table starting with the special columns "ObjectName", "TimeS",
// "TimeUS". Every category gets the fixed attributes "positions" and
// "Display". At load, the ".sqlite" files found in the data directory are
// reopened under their stems.
//
// All members here run with the category lock held exclusively, except
// xLoadDatabases, which the archive's load runs with all four locks held.
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "module/module_log.h"
#include "module/world_representation.h"
#include "storage/attribute_rows.h"
#include "storage/name_rules.h"

namespace KQ {

namespace {

// The ".sqlite" files of the data directory (not its folders): paths and
// stems. Non-zero when the directory cannot be read.
int findDatabases(const std::string& dataDirectory, std::vector<std::string>& paths, std::vector<std::string>& names) {
  namespace fs = boost::filesystem;
  boost::system::error_code error;
  const fs::path directory(dataDirectory);
  const fs::file_status status = fs::status(directory, error);
  if (error || status.type() == fs::file_not_found || status.type() == fs::status_error) return 1;

  fs::directory_iterator entry(directory, error);
  if (error) return 1;
  for (const fs::directory_iterator end; entry != end; entry.increment(error)) {
    if (error) return 1;
    boost::system::error_code typeError;
    if (fs::is_directory(entry->path(), typeError)) continue;
    const fs::path& path = entry->path();
    if (path.extension() != ".sqlite") continue;
    // A file no category could have made (".x.sqlite", a control character)
    // is left alone.
    if (!isValidCategoryName(path.stem().string())) continue;
    paths.push_back(path.string());
    names.push_back(path.stem().string());
  }
  return error ? 1 : 0;
}

}  // namespace

int KQWorldRepresentation::xCreateDatabaseFromCategory(const std::string& category, bool reset) {
  auto existing = databases_.find(category);
  if (existing != databases_.end()) {
    // An open database is kept as it is, not reopened; only emptied when asked.
    return reset ? existing->second.resetDatabase() : 0;
  }
  const std::string path = dataDirectory_ + "/" + category + ".sqlite";
  KQDatabaseManager& database = databases_[category];
  database = KQDatabaseManager(path, true);
  return reset ? database.resetDatabase() : 0;
}

int KQWorldRepresentation::xCreateTableFromAttribute(const std::string& category, const std::string& attribute) {
  auto found = categories_.find(category);
  if (found == categories_.end()) {
    KQWR_ERROR("xCreateTableFromAttribute") << "Category " << category << " does not exist.";
    return 1;
  }
  if (!found->second->hasAttribute(attribute)) {
    KQWR_ERROR("xCreateTableFromAttribute") << "Category " << category << " does not have attribute " << attribute;
    return 1;
  }
  auto database = databases_.find(category);
  if (database == databases_.end()) {
    // A description that came back without its file has nowhere to put a table.
    KQWR_ERROR("xCreateTableFromAttribute") << "Category database " << category << " not found.";
    return 1;
  }
  return database->second.createTable(attribute, found->second->getAttributeTable(attribute));
}

void KQWorldRepresentation::xAddPositionsToCategory(const std::string& category) {
  xAddAttributeToCategory(category, kPositionsAttributeName, positionsFieldList());
}

void KQWorldRepresentation::xAddDisplayToCategory(const std::string& category) {
  xAddAttributeToCategory(category, displayAttributeName_, displayFieldList());
}

void KQWorldRepresentation::xReopenCategories() {
  std::vector<std::string> paths;
  std::vector<std::string> names;
  if (findDatabases(dataDirectory_, paths, names) != 0) {
    KQWR_ERROR("restore") << "Could not read the data directory " << dataDirectory_;
    return;
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string& category = names[i];
    if (categories_.count(category) == 0) {  // the built-in ones are open already
      KQWR_VERBOSE("restore") << "Reopening " << category;
      KQDatabaseManager& database = databases_[category];
      database = KQDatabaseManager(paths[i], true);
      database.load();
      categories_[category] = std::make_shared<ObjectCategory>(category);
      xAddPositionsToCategory(category);
      xAddDisplayToCategory(category);
    }
    // Every other table is an attribute: its columns after the special ones
    // are the fields a caller gave.
    const std::shared_ptr<ObjectCategory>& description = categories_[category];
    int status = 0;
    for (const auto& table : databases_[category].describeTables(&status)) {
      if (description->hasAttribute(table.first)) continue;
      KQValue fields;
      fields.arraySetSize(0);
      for (int column = 3; column < table.second.getSize(); ++column) fields.arrayPush(table.second[column]);
      xAddAttributeToCategory(category, table.first, fields);
    }
    if (status != 0) {
      KQWR_ERROR("restore") << "Could not read the tables of " << paths[i];
    }
  }
}

int KQWorldRepresentation::xLoadDatabases() {
  databases_.clear();
  std::vector<std::string> paths;
  std::vector<std::string> names;
  const int status = findDatabases(dataDirectory_, paths, names);
  if (status != 0) {
    KQWR_ERROR("load") << "Could not load existing databases.";
    return status;
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    KQWR_VERBOSE("load") << "Loading " << names[i];
    KQDatabaseManager& database = databases_[names[i]];
    database = KQDatabaseManager(paths[i], true);
    // A file that does not load stays in the map and answers with failures;
    // the file itself is left untouched.
    database.load();
  }
  return status;
}

}  // namespace KQ
