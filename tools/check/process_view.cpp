#include "check/process_view.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <sstream>

namespace check {

namespace {

constexpr char kListening[] = "0A";
constexpr char kEstablished[] = "01";
constexpr std::size_t kLocalColumn = 1;
constexpr std::size_t kStateColumn = 3;
constexpr std::size_t kInodeColumn = 9;
constexpr std::size_t kEffective = 1;  // of the real, effective, saved and file system ids
constexpr int kHex = 16;

std::string Proc(pid_t process, const std::string& file) {
  return "/proc/" + std::to_string(process) + "/" + file;
}

std::vector<std::string> EntriesOf(const std::string& directory) {
  std::vector<std::string> names;
  DIR* const listing = opendir(directory.c_str());
  if (listing == nullptr) return names;
  while (const dirent* const entry = readdir(listing)) names.emplace_back(entry->d_name);
  closedir(listing);
  return names;
}

std::vector<std::string> WordsOf(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

std::string LinkTarget(const std::string& path) {
  char target[64];  // longer ones are no sockets
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

bool HoldsSocket(pid_t process, const std::string& inode) {
  const std::string wanted = "socket:[" + inode + "]";
  const std::string directory = Proc(process, "fd/");
  const std::vector<std::string> names = EntriesOf(directory);
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return LinkTarget(directory + name) == wanted;
  });
}

// One line of proc(5)'s net/tcp: addresses as HEX:PORT, and the state as two hexadecimal digits.
TCP_SOCKET SocketOf(const std::vector<std::string>& words) {
  const std::string& local = words[kLocalColumn];
  const std::string& state = words[kStateColumn];
  const std::string port = local.substr(local.rfind(':') + 1);
  return {static_cast<int>(std::strtol(port.c_str(), nullptr, kHex)), state == kListening,
          state == kEstablished, words[kInodeColumn]};
}

// The numbers behind "KEY:" in proc(5)'s status.
std::vector<unsigned long> StatusNumbers(pid_t process, const std::string& key) {
  std::ifstream status(Proc(process, "status"));
  std::vector<unsigned long> numbers;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key + ":", 0) != 0) continue;
    for (const std::string& word : WordsOf(line.substr(key.size() + 1))) {
      numbers.push_back(std::stoul(word));
    }
  }
  return numbers;
}

bool InGroup(pid_t process, gid_t group) {
  const std::vector<unsigned long> own = StatusNumbers(process, "Gid");
  if (own.size() > kEffective && own[kEffective] == group) return true;
  const std::vector<unsigned long> groups = StatusNumbers(process, "Groups");
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace

std::string ProcessName(pid_t process) {
  std::ifstream file(Proc(process, "comm"));
  std::string name;
  std::getline(file, name);
  return name;
}

// Reading this link takes the same right as reading those of the descriptors. access(2) would ask
// for less: root may list the descriptors of others without seeing what they are.
bool MayInspect(pid_t process) {
  char byte = 0;
  return readlink(Proc(process, "exe").c_str(), &byte, sizeof byte) >= 0;
}

std::vector<TCP_SOCKET> AllSockets(pid_t process) {
  std::vector<TCP_SOCKET> sockets;
  for (const char* const table : {"net/tcp", "net/tcp6"}) {
    std::ifstream file(Proc(process, table));
    std::string line;
    std::getline(file, line);  // the headings
    while (std::getline(file, line)) {
      const std::vector<std::string> words = WordsOf(line);
      if (words.size() > kInodeColumn) sockets.push_back(SocketOf(words));
    }
  }
  return sockets;
}

std::vector<TCP_SOCKET> SocketsOf(pid_t process) {
  std::vector<TCP_SOCKET> sockets = AllSockets(process);
  const auto foreign = [process](const TCP_SOCKET& socket) {
    return !HoldsSocket(process, socket.inode);
  };
  sockets.erase(std::remove_if(sockets.begin(), sockets.end(), foreign), sockets.end());
  return sockets;
}

std::string HolderOf(const std::string& inode) {
  for (const std::string& name : EntriesOf("/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t process = std::stoi(name);
    if (!HoldsSocket(process, inode)) continue;
    return "process " + name + " (" + ProcessName(process) + ")";
  }
  return "another process";
}

bool HasOpen(pid_t process, const std::string& path) {
  struct stat device {};
  if (stat(path.c_str(), &device) != 0) return false;
  const std::string directory = Proc(process, "fd/");
  const std::vector<std::string> names = EntriesOf(directory);
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    struct stat open {};
    return stat((directory + name).c_str(), &open) == 0 && S_ISCHR(open.st_mode) &&
           open.st_rdev == device.st_rdev;
  });
}

bool MayUse(pid_t process, const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0) return false;
  const std::vector<unsigned long> users = StatusNumbers(process, "Uid");
  if (users.size() <= kEffective || users[kEffective] == 0) return true;
  mode_t wanted = S_IROTH | S_IWOTH;
  if (users[kEffective] == file.st_uid) {
    wanted = S_IRUSR | S_IWUSR;
  } else if (InGroup(process, file.st_gid)) {
    wanted = S_IRGRP | S_IWGRP;
  }
  return (file.st_mode & wanted) == wanted;
}

}  // namespace check
