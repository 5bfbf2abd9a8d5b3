// WorldObject: the payload of a scene-graph node: the object's name and its
// category (shared with the module's category map).
#ifndef KQ_STORAGE_WORLD_OBJECT_H_
#define KQ_STORAGE_WORLD_OBJECT_H_

#include <string>

#include <memory>

#include "spatial/graph_node_data.h"
#include "storage/object_category.h"

class WorldObject : public GraphNodeData {
 public:
  WorldObject() = default;
  WorldObject(const std::string& name, std::shared_ptr<ObjectCategory> category)
      : name_(name), category_(std::move(category)) {}
  ~WorldObject() override;

  const std::string& getName() const override { return name_; }
  const std::shared_ptr<ObjectCategory>& getCategory() const { return category_; }
  // The category's name, or "" when the object has no category.
  std::string getCategoryName() const;

 private:
  friend class boost::serialization::access;
  template <class Archive>
  void serialize(Archive& ar, unsigned int version);  // world_archive.cpp

  std::string name_;
  std::shared_ptr<ObjectCategory> category_;
};

#endif  // KQ_STORAGE_WORLD_OBJECT_H_
