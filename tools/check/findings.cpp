#include "check/findings.h"

#include <algorithm>
#include <array>

namespace check {

namespace {

constexpr std::array<const char*, 3> kSeverityWords = {"ok", "warning", "error"};

bool Milder(const FINDING& left, const FINDING& right) { return left.severity < right.severity; }

}  // namespace

SEVERITY WorstOf(const FINDINGS& findings) {
  const auto worst = std::max_element(findings.begin(), findings.end(), Milder);
  return worst == findings.end() ? kFine : worst->severity;
}

void Print(const FINDINGS& findings, std::ostream* out) {
  for (const FINDING& finding : findings) {
    if (!finding.place.empty()) *out << finding.place << ": ";
    *out << kSeverityWords[finding.severity] << ": " << finding.text << '\n';
  }
}

}  // namespace check
