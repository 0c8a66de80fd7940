// What the crash driver runs and the crash test checks: one fixed cycle of
// staging operations and boot loads on a host root, with a progress file the
// driver appends to around every operation.
#pragma once

#include <array>

namespace crashcycle {

enum class Op { StageDesiredA, Boot, StageDesiredB, StageSmartnic };

// After a boot that applied A, B is staged and replaced by a SmartNIC document,
// which the next boot applies.
constexpr std::array<Op, 5> kCycle = {Op::StageDesiredA, Op::Boot, Op::StageDesiredB, Op::StageSmartnic, Op::Boot};

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
