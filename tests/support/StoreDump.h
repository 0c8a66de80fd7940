// Every row of every store as data, for tests that must show an operation changed nothing (or
// exactly what it reported). Reads the files directly with SQLite, read-only.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace cstest {

// "<store>.<table>" -> its rows, each row its columns rendered by SQLite's quote() and joined
// by '|', sorted. Covers the configuration store (with its key-value table), the data-file store
// and the schema store under the current host root; a store file that does not exist is absent.
using StoreDump = std::map<std::string, std::vector<std::string>>;
StoreDump DumpStores();

// The same for one database file; "<file>" is used as the store name. Throws std::runtime_error
// when the file exists but cannot be read as a database.
StoreDump DumpStoreFile(const std::string& path, const std::string& storeName);

// A row with the parts that differ between two runs of the same operation masked: generated
// instance ids (UUID text) read "<id>", creation times "<time>".
std::string MaskRunToRun(std::string row);
// Every row masked so, each table sorted again.
StoreDump MaskRunToRun(StoreDump dump);

// Lines "+ store.table row" / "- store.table row" for what differs; "" when equal. For failure
// messages: EXPECT_EQ("", DiffStores(before, DumpStores())).
std::string DiffStores(const StoreDump& before, const StoreDump& after);

}  // namespace cstest
