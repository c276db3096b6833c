#ifndef TALP_TOOLS_CHECK_FINDINGS_H_
#define TALP_TOOLS_CHECK_FINDINGS_H_

#include <ostream>
#include <string>
#include <vector>

namespace check {

enum SEVERITY : int {
  kFine = 0,     // works as it should
  kWarning = 1,  // has no effect, or one that nobody expects; the daemon serves all the same
  kError = 2     // the daemon does not start, or does not serve as the configuration says
};

struct FINDING {
  SEVERITY severity;
  std::string place;  // "FILE:LINE", a path, or empty
  std::string text;   // what is the matter and what to do
};

using FINDINGS = std::vector<FINDING>;

// The highest severity in the list; kFine for an empty one.
SEVERITY WorstOf(const FINDINGS& findings);

// One line each: "PLACE: SEVERITY: TEXT".
void Print(const FINDINGS& findings, std::ostream* out);

}  // namespace check

#endif  // TALP_TOOLS_CHECK_FINDINGS_H_
