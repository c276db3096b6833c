#ifndef CHECK_FINDINGS_H
#define CHECK_FINDINGS_H

#include <ostream>
#include <string>
#include <vector>

namespace check {

enum Severity : int {
  Fine = 0,     // works as it should
  Warning = 1,  // has no effect, or one that nobody expects; the daemon serves all the same
  Error = 2     // the daemon does not start, or does not serve as the configuration says
};

struct FINDING {
  Severity severity;
  std::string place;  // "FILE:LINE", a path, or empty
  std::string text;   // what is the matter and what to do
};

using FINDINGS = std::vector<FINDING>;

// The highest severity in the list; Fine for an empty one.
Severity WorstOf(const FINDINGS& findings);

// One line each: "PLACE: SEVERITY: TEXT".
void Print(const FINDINGS& findings, std::ostream* out);

}  // namespace check

#endif
