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

#include "bus/tlqueue.h"
#include "core/byte_list.h"

// "50 0E FF" as bytes, in a container of bytes.
template <typename CONTAINER = BYTE_LIST>
CONTAINER FromHex(const std::string& hex) {
  std::istringstream words(hex);
  CONTAINER bytes;
  for (std::string word; words >> word;) {
    bytes.push_back(static_cast<typename CONTAINER::value_type>(std::stoi(word, nullptr, 16)));
  }
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

inline BYTE_LIST ListOf(const std::string& text) { return {text.begin(), text.end()}; }

inline std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// False if `condition` does not come true in a time that is long for any machine.
template <typename CONDITION>
bool ComesTrue(CONDITION condition) {
  for (int i = 0; i < 40000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

inline std::ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// "\xHH" stands for what a line of test data cannot hold.
inline std::string Unescaped(std::string text) {
  for (std::size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; ++at) {
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  }
  return text;
}

// Checks `run` against the lines "input => result" of a file of test data, in their order. Empty
// texts are written as "-".
template <typename RUN>
void ExpectCases(const char* file, RUN run) {
  std::istringstream lines(ReadFile(std::string(TALP_TEST_DATA "/") + file));
  EXPECT_NE(EOF, lines.peek()) << file;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t arrow = line.find(" => ");
    if (arrow == std::string::npos) continue;
    const std::string input = line.substr(0, arrow);
    const std::string result = run(input == "-" ? "" : Unescaped(input));
    EXPECT_EQ(line.substr(arrow + 4), result.empty() ? "-" : result) << line;
  }
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

// Puts a shell script in place of a command that the code under test runs through the shell.
class STUBBED_COMMAND {
 public:
  STUBBED_COMMAND(const std::string& command, const std::string& script) : path_(getenv("PATH")) {
    const std::string file = directory_.Write(command, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    setenv("PATH", (directory_.Path("") + ":" + path_).c_str(), 1);
  }
  ~STUBBED_COMMAND() { setenv("PATH", path_.c_str(), 1); }

 private:
  TEMP_DIR directory_;
  const std::string path_;
};

#endif  // TALP_TESTS_UNIT_SUPPORT_H_
