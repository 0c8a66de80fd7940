// Platform feature switches (the feature-state table).
//
// Read from "<root>/etc/talvex/features", one "ID=on" or "ID=off" per line ('#' starts a comment).
// The file is read afresh on every query, so a switch changed between two runs is seen by the next.
// A missing file, or a switch it does not name, gives the switch's documented default.
#pragma once

namespace Host {

enum FeatureList : int {
  FEATURE_HOST_CONFIG_FILE = 41,             // host configuration file honoured by desired staging; default on
  FEATURE_REDUCED_BACKUP_RESERVATION = 45,   // backup ramdisk reserves no memory up front; default off
  FEATURE_SCHEMA_VERSIONING = 62,            // pick the newest version of each schema; default on
  FEATURE_SMARTNIC_SCHEMA_FILTER = 70,       // register SmartNIC schemas only on a DPU; default on
};

bool FeatureDefault(int feature);
bool FeatureState_IsEnabled(int feature);

}  // namespace Host

// Prepares the feature-state table for reading without log output. Kept for the callers that the
// host's feature library requires it of; reading here never logs, so it only checks the file is readable.
void FeatureState_InitSilentMode();
