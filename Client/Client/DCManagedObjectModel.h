#pragma once

#include "platform/ManagedObject.h"

#include <cstddef>
#include <string>
#include <vector>

namespace florvane {

inline constexpr char DCManagedObjectModelName[] = "Florvane";
inline constexpr char DCEntityPath[] = "Path";
inline constexpr char DCEntityStoredLocalMetadata[] = "StoredLocalMetadata";
inline constexpr char DCEntityOtherMetadata[] = "OtherMetadata";
inline constexpr char DCEntityUpload[] = "Upload";

// The places of the entities in the model.
inline constexpr std::size_t DCEntityIndexPath = 0;
inline constexpr std::size_t DCEntityIndexStoredLocalMetadata = 1;
inline constexpr std::size_t DCEntityIndexOtherMetadata = 2;
inline constexpr std::size_t DCEntityIndexUpload = 3;

// The model of the metadata database; one a process, never changed.
const ManagedObjectModel& DCManagedObjectModel();
// What brings a store from each version to the next; the last makes it as the model wants it.
const std::vector<std::string>& DCManagedObjectMigrations();

}  // namespace florvane
