// What the crash driver runs and the crash test checks: one fixed cycle of
// staging operations and boot loads on a host root, with a progress file the
// driver appends to around every operation.
#pragma once

#include <array>

namespace crashcycle {

// Boot: a boot on the store as it stands; RestoreBoot: a boot that first
// restores the store from its backup (which holds A staged); RegisterSchemas:
// schema and default registration, as a schema-change boot or a live install
// runs it.
enum class Op { StageDesiredA, Boot, StageDesiredB, StageSmartnic, RegisterSchemas, RestoreBoot };

// After a boot that applied A, B is staged and replaced by a SmartNIC document,
// which the next boot applies; then the schemas are registered again and the
// host reboots from its backup.
constexpr std::array<Op, 7> kCycle = {Op::StageDesiredA, Op::Boot,           Op::StageDesiredB, Op::StageSmartnic,
                                      Op::Boot,          Op::RegisterSchemas, Op::RestoreBoot};

// Host paths of the documents the staging operations read.
constexpr const char* kDesiredA = "/crash/desired-a.json";
constexpr const char* kDesiredB = "/crash/desired-b.json";
constexpr const char* kSmartnic = "/crash/smartnic.json";

// The driver appends "B <n>\n" before its n-th operation (counted from 0 in
// each run) touches the store and "E <n>\n" after it returned, with write(2): a
// SIGKILL keeps every note made before it.
constexpr const char* kProgress = "/crash/progress";

// Exit statuses of a driver that ended on its own.
constexpr int kDriverDone = 0;
constexpr int kDriverUsage = 2;
constexpr int kDriverOpFailed = 3;

}  // namespace crashcycle
