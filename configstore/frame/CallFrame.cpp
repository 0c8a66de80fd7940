#include "configstore/frame/CallFrame.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/host/HostRoot.h"
#include "platform/host/Process.h"
#include "platform/plon/Plon.h"

namespace QorConfigStore {

void ThrowStoreFailure(const std::string& message) {
  const std::string& cause = DBStore::LastError();
  if (cause.empty()) throw ConfigStoreException(CS_ERR_GENERIC, message);
  throw ConfigStoreException(CS_ERR_GENERIC, message + (message.ends_with('.') ? " " : ": ") + cause);
}

DBStore::Connection GetDBConnection(DBStore::Type type, bool mustConnect) {
  if (!mustConnect) return DBStore::GetConnection(type, true);
  return ConnectOrThrow(type, "Failed to connect to database");
}

DBStore::Connection ConnectOrThrow(DBStore::Type type, const char* message, bool readWrite) {
  DBStore::Connection conn = DBStore::GetConnection(type, readWrite);
  if (!conn) ThrowStoreFailure(message);
  return conn;
}

void RethrowFromOperation(const char* prefix) {
  try {
    throw;
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s", e.what());
  }
  try {
    throw;
  } catch (const InvalidArgumentException& e) {
    if (*prefix == '\0') throw;
    throw InvalidArgumentException(e.code(), prefix + std::string(e.what()));
  } catch (const ConfigStoreException& e) {
    if (*prefix == '\0') throw;
    throw ConfigStoreException(e.code(), prefix + std::string(e.what()));
  } catch (const std::exception& e) {
    throw ConfigStoreException(CS_ERR_GENERIC, prefix + std::string(e.what()));
  }
}

bool FileExists(const char* path) {
  struct stat st{};
  return path != nullptr && stat(path, &st) == 0;
}

bool RemoveFile(const char* path) {
  if (!Host::InsideRoot(path)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Refused to remove %s: it lies outside the host root %s", path,
                  Host::Root().empty() ? "/" : Host::Root().c_str());
    return false;
  }
  int rc;
  do {
    rc = remove(path);
  } while (rc != 0 && errno == EINTR);
  if (rc == 0) {
    CSLogger::Log(CSLogger::PRIO_INFO, "[%s] file removed.", path);
    return true;
  }
  CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to remove: %s, err: %d", path, errno);
  return false;
}

bool ExecCommand(const char** argv) {
  pid_t pid = -1;
  int rc = Host::SpawnProcess(argv, &pid);
  if (rc != 0) {
    CSLogger::LogErrCode(CSLogger::PRIO_ERROR, CS_ERR_PROCESS_START, std::strerror(rc));
    return false;
  }
  int status = 0;
  if (Host::WaitProcess(pid, &status) != 0) {
    CSLogger::LogErrCode(CSLogger::PRIO_ERROR, CS_ERR_PROCESS_WAIT, static_cast<int>(pid), std::strerror(errno));
    return false;
  }
  // A child killed by a signal has no exit status of its own; it counts as a failure too.
  int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (exitStatus != 0) {
    CSLogger::LogErrCode(CSLogger::PRIO_ERROR, CS_ERR_PROCESS_EXIT, exitStatus);
    return false;
  }
  return true;
}

void SetLSSysAlert(std::string message) {
  if (message.size() >= kMaxSysAlertLength) message.resize(kMaxSysAlertLength);
  std::unique_ptr<PLON_ParamList, decltype(&PLON_ParamListDestroy)> params(PLON_ParamListCreate(1),
                                                                           &PLON_ParamListDestroy);
  if (!params) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to raise sysAlert. Failed to create plon param list.");
    return;
  }
  if (PLON_ParamListAddString(params.get(), message.c_str()) != NUK_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to raise sysAlert. Failed to add string to plon param list.");
    return;
  }
  NUK_ReturnStatus status = PLON_Set(PLON_NODE_system_sysAlert, nullptr, params.get());
  if (status != NUK_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to raise sysAlert with status: %s", NUK_ReturnStatusToString(status));
  }
}

}  // namespace QorConfigStore
