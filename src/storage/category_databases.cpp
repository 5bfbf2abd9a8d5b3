// Category databases: one SQLite file per category in the data directory
// (data directory + "/" + category + ".sqlite"), one table per attribute,
// every table starting with the special columns "ObjectName", "TimeS",
// "TimeUS". Every category gets the fixed attributes "positions" and
// "Display". At load, the ".sqlite" files found in the data directory are
// reopened under their stems.
//
// All members here run with the category lock held exclusively, except
// xLoadDatabases, which the archive's load runs with all four locks held.
#include <cstdint>
#include <utility>

#include <boost/filesystem.hpp>

#include "module/module_log.h"
#include "module/world_representation.h"

namespace KQ {

namespace {

KQValue fieldPair(const std::string& name, const std::string& type) {
  KQValue pair;
  pair.arraySetSize(0);
  pair.arrayPush(KQValue(name));
  pair.arrayPush(KQValue(type));
  return pair;
}

KQValue fieldList(std::initializer_list<std::pair<const char*, const char*>> fields) {
  KQValue list;
  list.arraySetSize(0);
  for (const auto& field : fields) list.arrayPush(fieldPair(field.first, field.second));
  return list;
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

void KQWorldRepresentation::xAddSpecialFields(KQValue& row, const std::string& objectName,
                                              const ko::os::timeval& time) const {
  // TimeS is the epoch seconds cut to 32 bits, as the "int" column keeps it.
  row.arrayPush(fieldPair("ObjectName", objectName));
  KQValue seconds;
  seconds.arraySetSize(0);
  seconds.arrayPush(KQValue("TimeS"));
  seconds.arrayPush(KQValue(static_cast<int>(static_cast<int32_t>(time.tv_sec))));
  row.arrayPush(seconds);
  KQValue microseconds;
  microseconds.arraySetSize(0);
  microseconds.arrayPush(KQValue("TimeUS"));
  microseconds.arrayPush(KQValue(static_cast<int>(time.tv_usec)));
  row.arrayPush(microseconds);
}

void KQWorldRepresentation::xAddPositionsToCategory(const std::string& category) {
  // A pose relative to the parent frame: quaternion w, x, y, z then
  // translation x, y, z in metres.
  static const KQValue fields = fieldList({{"ParentName", "text"},
                                           {"QuatW", "float"},
                                           {"QuatX", "float"},
                                           {"QuatY", "float"},
                                           {"QuatZ", "float"},
                                           {"X", "float"},
                                           {"Y", "float"},
                                           {"Z", "float"}});
  xAddAttributeToCategory(category, "positions", fields);
}

void KQWorldRepresentation::xAddDisplayToCategory(const std::string& category) {
  static const KQValue fields = fieldList({{"colorR", "float"},
                                           {"colorG", "float"},
                                           {"colorB", "float"},
                                           {"scaleX", "float"},
                                           {"scaleY", "float"},
                                           {"scaleZ", "float"},
                                           {"model", "text"}});
  xAddAttributeToCategory(category, displayAttributeName_, fields);
}

int KQWorldRepresentation::xFindDatabases(std::vector<std::string>& paths, std::vector<std::string>& names) {
  namespace fs = boost::filesystem;
  boost::system::error_code error;
  const fs::path directory(dataDirectory_);
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
    paths.push_back(path.string());
    names.push_back(path.stem().string());
  }
  return error ? 1 : 0;
}

int KQWorldRepresentation::xLoadDatabases() {
  databases_.clear();
  std::vector<std::string> paths;
  std::vector<std::string> names;
  const int status = xFindDatabases(paths, names);
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
