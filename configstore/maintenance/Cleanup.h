// Store maintenance: removal of configuration rows, automatic values and data-file records that no
// schema owns any longer, and reconciliation of the data files on disk with their records.
#pragma once

namespace QorConfigStore {

// Deletes the Config rows whose (component, group, key) has no ss.ConfigSchema row, then the
// DataFileMetadata rows whose (component, key) has no ss.DataFileSchema row. Outside boot
// (`atBoot` false) it also removes the data directories of those rows, and only after the rows were
// deleted. Best effort: each half stops at its first failure, logs it and never throws.
void CleanupStore(bool atBoot);

// Clears every automatic value, then deletes the Config rows left without any value. No store to
// connect to: logged, and it returns. A failed statement throws ConfigStoreException 2000; the
// statements share no transaction, so a cleared automatic value stays cleared.
void CleanupAutoConfig();

// Reconciles "/var/cache/datafiles" with DataFileMetadata in both directions: entries on disk the
// store does not list are removed, rows whose file is not on disk are deleted. Best effort: store
// failures are logged and raised as "zeb.user.cs.dfs.cleanup.error"; nothing is thrown.
void CleanupDataFiles();

}  // namespace QorConfigStore
