// The crash driver and the crash test share one fixed cycle of staging operations and boot loads,
// and a progress file the driver appends to around every operation.
#pragma once

#include <array>

namespace crashcycle {

// Boot: on the store as it stands; RestoreBoot: first restores the store from its backup (which
// holds A staged); RegisterSchemas: schema and default registration, as a schema-change boot runs it.
enum class Op { StageDesiredA, Boot, StageDesiredB, StageSmartnic, RegisterSchemas, RestoreBoot };
// A boot applies A; B is staged and replaced by a SmartNIC document, which the next boot applies;
// then the schemas are registered again and the host reboots from its backup.
constexpr std::array<Op, 7> kCycle = {Op::StageDesiredA, Op::Boot,           Op::StageDesiredB, Op::StageSmartnic,
                                      Op::Boot,          Op::RegisterSchemas, Op::RestoreBoot};
// The documents the staging operations read, indexed by Op (host paths).
constexpr const char* kDocuments[] = {"/crash/desired-a.json", nullptr, "/crash/desired-b.json",
                                      "/crash/smartnic.json"};
// "B <n>\n" before the n-th operation of a run (from 0) touches the store, "E <n>\n" after it
// returned, written with write(2): a SIGKILL keeps every note made before it.
constexpr const char* kProgress = "/crash/progress";
constexpr int kDriverDone = 0, kDriverFailed = 3;

}  // namespace crashcycle
