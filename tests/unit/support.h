#ifndef TALP_TESTS_UNIT_SUPPORT_H_
#define TALP_TESTS_UNIT_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "bus/frame.h"

// "50 0E FF" as bytes.
inline REPLY FromHex(const std::string& hex) {
  std::istringstream words(hex);
  REPLY bytes;
  for (unsigned byte; words >> std::hex >> byte;) bytes.push_back(static_cast<unsigned char>(byte));
  return bytes;
}

// The reverse.
template <typename CONTAINER>
std::string ToHex(const CONTAINER& bytes) {
  std::string hex;
  for (const auto byte : bytes) {
    char word[] = " FF";
    std::snprintf(word + 1, 3, "%02X", byte & 0xFFU);
    hex += hex.empty() ? word + 1 : word;
  }
  return hex;
}

inline std::string TextOf(const BYTE_LIST& list) { return {list.begin(), list.end()}; }

// One row of a table. A row without a result does not compile.
struct CASE {
  const char* input;
  const char* result;
};

// Checks that `run` gives the result of every row, in their order. A failure is reported with the
// place of this call and the row's input.
template <typename RUN, typename TABLE>
void ExpectCases(RUN run, const TABLE& table, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE()) {
  for (const CASE& row : table) {
    const testing::ScopedTrace trace(file, line, row.input);
    EXPECT_EQ(row.result, run(row.input));
  }
}

// False if `condition` does not come true in a time that is long for any machine.
template <typename CONDITION>
bool ComesTrue(CONDITION condition, int milliseconds = 40000) {
  for (int i = 0; i < milliseconds; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TEMP_DIR {
 public:
  TEMP_DIR() {
    char name[] = "/tmp/talp-unit-XXXXXX";
    path_ = mkdtemp(name);
  }
  ~TEMP_DIR() { std::filesystem::remove_all(path_); }
  TEMP_DIR(const TEMP_DIR&) = delete;
  TEMP_DIR& operator=(const TEMP_DIR&) = delete;

  std::string Path(const std::string& name) const { return path_ + "/" + name; }

  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name)) << content;
    return Path(name);
  }

 private:
  std::string path_;
};

// Puts a shell script in place of sleep(1), which the code under test runs through the shell.
class STUBBED_SLEEP {
 public:
  explicit STUBBED_SLEEP(const std::string& script) : path_(getenv("PATH")) {
    const std::string file = directory_.Write("sleep", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    setenv("PATH", (directory_.Path("") + ":" + path_).c_str(), 1);
  }
  ~STUBBED_SLEEP() { setenv("PATH", path_.c_str(), 1); }

 private:
  TEMP_DIR directory_;
  const std::string path_;
};

#endif  // TALP_TESTS_UNIT_SUPPORT_H_
