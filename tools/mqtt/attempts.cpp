#include "mqtt/attempts.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace mqtt {

ATTEMPTS::ATTEMPTS(std::string name, seconds longest)
    : name_(std::move(name)), longest_(longest), random_(std::random_device()()) {}

void ATTEMPTS::Report(const std::string& trouble) {
  if (reported_.insert(trouble).second) std::cerr << name_ + ": " + trouble + "\n";
}

void ATTEMPTS::Succeeded(const std::string& text) {
  reported_.clear();
  Report(text);
  Begin();
  works_ = true;
}

void ATTEMPTS::Failed(const std::string& trouble) {
  Report(trouble);
  if (Age() > seconds(10)) next_ = seconds(1);
  Pause(next_);
  next_ = std::min(2 * next_, longest_);
}

void ATTEMPTS::Ended() {
  next_ = seconds(1);
  Pause(next_);
}

void ATTEMPTS::Pause(seconds longest) {
  const milliseconds most(longest);
  pause_ = milliseconds(
      std::uniform_int_distribution<milliseconds::rep>(most.count() / 2, most.count())(random_));
  works_ = false;
  Begin();
}

}  // namespace mqtt
