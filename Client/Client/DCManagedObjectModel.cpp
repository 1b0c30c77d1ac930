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
  // Version 1 is the model itself; a change of the model adds the statements that lead to it.
  static const auto& migrations =
      *new std::vector<std::string>{ManagedObjectContext::schemaOfModel(DCManagedObjectModel())};
  return migrations;
}

}  // namespace florvane
