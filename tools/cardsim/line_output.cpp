#include "cardsim/line_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace cardsim {

namespace {

constexpr size_t kMostWaiting = size_t{1024} * 1024;
constexpr std::chrono::seconds kLastWait{1};

bool WriteAll(const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (written > 0) {
      done += static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      // Somebody else may have made the descriptor non-blocking; wait all the same.
      pollfd wait = {STDOUT_FILENO, POLLOUT, 0};
      poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

// Shared with the thread, which may be stuck in a write when the program ends.
struct LINE_OUTPUT::STATE {
  std::mutex mutex;
  std::condition_variable changed;
  std::string waiting;
  size_t lost = 0;
  bool writing = false;
  bool broken = false;
  bool ending = false;
};

LINE_OUTPUT::LINE_OUTPUT() : state_(std::make_shared<STATE>()) {
  std::thread(Write, state_).detach();
}

LINE_OUTPUT::~LINE_OUTPUT() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->ending = true;
  state_->changed.notify_all();
  state_->changed.wait_for(lock, kLastWait,
                           [this] { return state_->waiting.empty() && !state_->writing; });
}

void LINE_OUTPUT::Print(LINES* lines) {
  if (lines->empty()) return;
  {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    for (const std::string& line : *lines) {
      if (state_->waiting.size() + line.size() > kMostWaiting) {
        ++state_->lost;
        continue;
      }
      if (state_->lost > 0) state_->waiting += "lost " + std::to_string(state_->lost) + " lines\n";
      state_->lost = 0;
      state_->waiting += line + '\n';
    }
    if (state_->broken) state_->waiting.clear();
  }
  state_->changed.notify_all();
  lines->clear();
}

void LINE_OUTPUT::Write(std::shared_ptr<STATE> state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  while (true) {
    state->changed.wait(lock, [&state] { return state->ending || !state->waiting.empty(); });
    if (state->waiting.empty()) return;
    std::string text;
    text.swap(state->waiting);
    state->writing = true;
    lock.unlock();
    const bool written = WriteAll(text);
    lock.lock();
    state->writing = false;
    if (!written) {
      state->broken = true;
      state->waiting.clear();
    }
    state->changed.notify_all();
  }
}

}  // namespace cardsim
