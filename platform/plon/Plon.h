// Kernel system-information nodes, file-backed.
//
// A node path "/system/bootCmdLine" is read from "<root>/sys/plon/system/bootCmdLine". Nodes with
// instances take their instance arguments as path elements: "/system/lumafs/inodes/<ino>/stats"
// is the file "<root>/sys/plon/system/lumafs/inodes/<ino>/stats". A missing file is a failed read.
// Setting a node records what was set: a system alert is appended as a JSON line to
// "<root>/var/log/sysalerts.jsonl" (and sent to syslog on a real host); a ramdisk usage limit is
// written to "<root>/sys/plon/system/lumafs/ramdisks/<name>/memUsageLimit" as "warning error".
// PLON_CheckSig compares "<root>/sys/plon/.signature" with kPlonSignature.
// Instance arguments never lead out of the tree: a string argument that is empty, longer than
// 255 bytes, ".", or holds '/', ".." or NUL is refused with NUK_BAD_PARAM, as is a negative number.
// No function throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum NUK_ReturnStatus : int {
  NUK_OK = 0,
  NUK_NOT_FOUND = 1,
  NUK_BAD_PARAM = 2,
  NUK_NO_MEMORY = 3,
  NUK_IO_ERROR = 4,
  NUK_SIGNATURE_MISMATCH = 5,
  NUK_NOT_SUPPORTED = 6,
  NUK_LIMIT_EXCEEDED = 7,
};

const char* NUK_ReturnStatusToString(NUK_ReturnStatus status);

// Node identifiers known to this library version.
enum PLON_NodeId : int {
  PLON_NODE_INVALID = 0,
  PLON_NODE_system_bootCmdLine,
  PLON_NODE_system_bootOption,
  PLON_NODE_system_bootMAC,
  PLON_NODE_system_bootFsUUID,
  PLON_NODE_system_sysAlert,                       // set only: input [message string]
  PLON_NODE_system_lumafs_ramdisks_memUsageLimit,  // set only: instance [ramdisk name string],
                                                   // input [warning int, error int], per cent
  PLON_NODE_system_lumafs_inodes_stats,            // instance [inode number int]; 256-byte record
};

// Signature this library version writes and expects.
inline constexpr const char* kPlonSignature = "plon-nodes-v1";

// Parameter lists: string and integer parameters in order, with a fixed capacity.
// The creator owns the list and destroys it with PLON_ParamListDestroy.
struct PLON_ParamList;
PLON_ParamList* PLON_ParamListCreate(int capacity);  // nullptr when capacity < 0 or out of memory
// Both add functions: NUK_LIMIT_EXCEEDED when the list is full, NUK_BAD_PARAM for a null list or
// value. The string is copied.
[[nodiscard]] NUK_ReturnStatus PLON_ParamListAddString(PLON_ParamList* list, const char* value);
[[nodiscard]] NUK_ReturnStatus PLON_ParamListAddInt(PLON_ParamList* list, int64_t value);
void PLON_ParamListDestroy(PLON_ParamList* list);
int PLON_ParamListCount(const PLON_ParamList* list);
// Ints in decimal; "" for an index outside the list.
std::string PLON_ParamListGetString(const PLON_ParamList* list, int index);

// Reads a node into `buffer` (at most `size` bytes; the rest of the buffer is left as it was).
// instanceArgs may be nullptr for nodes without instances. NUK_NOT_FOUND when the node file is
// missing, NUK_BAD_PARAM for an unknown node or instance arguments of the wrong number or kind,
// NUK_NOT_SUPPORTED for a set-only node, NUK_IO_ERROR when the file cannot be read.
[[nodiscard]] NUK_ReturnStatus PLON_Get(PLON_NodeId node, const PLON_ParamList* instanceArgs, void* buffer, size_t size);
// Sets the sysAlert or memUsageLimit node (see the node list). NUK_BAD_PARAM for parameters of the
// wrong number, kind or range (limits outside 0..100 or warning above error), NUK_NOT_SUPPORTED
// for a node that cannot be set, NUK_IO_ERROR when the record cannot be written. Bytes of a message
// that are not UTF-8 are recorded as U+FFFD.
[[nodiscard]] NUK_ReturnStatus PLON_Set(PLON_NodeId node, const PLON_ParamList* instanceArgs, const PLON_ParamList* input);
// NUK_OK when the signature file holds kPlonSignature (one trailing newline allowed),
// NUK_SIGNATURE_MISMATCH otherwise, a missing file included.
[[nodiscard]] NUK_ReturnStatus PLON_CheckSig();

// Output type of a node's get: its record size in bytes.
struct PLON_Type {
  size_t size;
};
// The caller owns *type and releases it with PLON_ReleaseType. NUK_NOT_SUPPORTED for a set-only
// node, NUK_BAD_PARAM for an unknown one; *type is then nullptr.
[[nodiscard]] NUK_ReturnStatus PLON_LookupOutputTypeOfGet(PLON_NodeId node, PLON_Type** type);
void PLON_ReleaseType(PLON_Type* type);

// Path library: turns a textual node path into a node id, its instance arguments and output size.
struct PLONSHPath;
// "/system/lumafs/inodes/1234/stats" -> the inode stats node with instance [1234]. The caller owns
// *path (PLONSHPath_Delete). NUK_NOT_FOUND, and *path nullptr, when the text names no known node
// (an inode number that is not plain decimal, a refused instance element, an unknown element).
[[nodiscard]] NUK_ReturnStatus PLONSHPath_Form(const char* text, PLONSHPath** path);
// outputSize is 0 for a set-only node.
[[nodiscard]] NUK_ReturnStatus PLONSHPath_GetLeafElement(const PLONSHPath* path, PLON_NodeId* node, size_t* outputSize);
// The caller owns the returned list (PLON_ParamListDestroy).
[[nodiscard]] NUK_ReturnStatus PLONSHPath_GetInstArgs(const PLONSHPath* path, PLON_ParamList** args);
void PLONSHPath_Delete(PLONSHPath* path);
// Path patterns of every known node, "%" standing for an instance element
// ("/system/lumafs/inodes/%/stats"), in the node table's order.
std::vector<std::string> PLONSHPath_KnownPatterns();

// Test and demo support: write a node's content under the current root (creating directories).
// False when the path has an element the tree refuses ("..", an empty one) or the write fails.
[[nodiscard]] bool PLON_WriteNodeFile(const std::string& nodePath, const std::string& content);
// Writes the signature file of this library version under the current root.
[[nodiscard]] bool PLON_WriteSignature();
