#ifndef TALP_TOOLS_CHECK_PROCESS_VIEW_H_
#define TALP_TOOLS_CHECK_PROCESS_VIEW_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace check {

// Read-only looks at processes through proc(5). A process that is gone, or that the caller may not
// look into, shows nothing.

// The command name, at most 15 characters; empty if there is no such process.
std::string ProcessName(pid_t process);

// False if another user's process hides its descriptors from the caller.
bool MayInspect(pid_t process);

struct TCP_SOCKET {
  int localPort;
  bool listening;
  bool established;
  std::string inode;
};

// The sockets that a process itself has open, and all those of its network namespace.
std::vector<TCP_SOCKET> SocketsOf(pid_t process);
std::vector<TCP_SOCKET> AllSockets(pid_t process);

// "process 123 (name)" that has the socket open, or "another process" if none is visible.
std::string HolderOf(const std::string& inode);

// Whether the process has the device at `path` open, under whatever name.
bool HasOpen(pid_t process, const std::string& path);

// Whether the process's effective user and groups may read and write the file at `path`.
bool MayUse(pid_t process, const std::string& path);

}  // namespace check

#endif  // TALP_TOOLS_CHECK_PROCESS_VIEW_H_
