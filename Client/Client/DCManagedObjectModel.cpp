#include "Client/Client/DCManagedObjectModel.h"

#include "Client/Client/DCManagedOtherMetadata.h"
#include "Client/Client/DCManagedPath.h"
#include "Client/Client/DCManagedStoredLocalMetadata.h"
#include "Client/Client/DCManagedUpload.h"
#include "platform/ManagedObjectContext.h"

#include <memory>

namespace florvane {

namespace {

template <typename T>
ManagedEntity entity(const char* name, bool durable = false) {
  return {name, T::attributes(), [] { return std::make_shared<T>(); }, durable};
}

// The model as version 1 of the store had it.
ManagedObjectModel firstModel() {
  ManagedObjectModel model = DCManagedObjectModel();
  model.entities[DCEntityIndexUpload].attributes.resize(DCManagedUpload::BaseVersionIdentifier);
  return model;
}

}  // namespace

const ManagedObjectModel& DCManagedObjectModel() {
  // In the order of the indexes.
  static const auto& model =
      *new ManagedObjectModel{DCManagedObjectModelName,
                              {
                                  entity<DCManagedPath>(DCEntityPath),
                                  entity<DCManagedStoredLocalMetadata>(DCEntityStoredLocalMetadata),
                                  entity<DCManagedOtherMetadata>(DCEntityOtherMetadata),
                                  entity<DCManagedUpload>(DCEntityUpload, true),
                              }};
  return model;
}

const std::vector<std::string>& DCManagedObjectMigrations() {
  // A change of the model adds the statements that lead to it; what stands here never changes.
  static const auto& migrations = *new std::vector<std::string>{
      ManagedObjectContext::schemaOfModel(firstModel()),
      // What an upload is based on, what of it may have arrived, and what it is in conflict with.
      "ALTER TABLE \"Upload\" ADD COLUMN \"baseVersionIdentifier\" BLOB;\n"
      "ALTER TABLE \"Upload\" ADD COLUMN \"attempts\" BLOB;\n"
      "ALTER TABLE \"Upload\" ADD COLUMN \"conflictingVersionIdentifier\" BLOB;\n"
      "ALTER TABLE \"Upload\" ADD COLUMN \"conflictingFileURL\" TEXT;\n",
  };
  return migrations;
}

}  // namespace florvane
