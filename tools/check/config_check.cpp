#include "check/config_check.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <pugixml.hpp>

#include "core/byte_list.h"
#include "core/logger.h"
#include "core/speed.h"

namespace check {

namespace {

constexpr long kHighestPort = 65535;

// Each takes a value and returns what is wrong with it, or an empty text.
using COMPLAINT = std::string (*)(const std::string& value);

std::string NumberComplaint(const std::string& value) {
  char* end = nullptr;
  static_cast<void>(std::strtol(value.c_str(), &end, 10));
  if (!value.empty() && *end == '\0') return {};
  return "is not a whole number and is read as " + std::to_string(ATOL(value));
}

std::string LoglevelComplaint(const std::string& value) {
  if (ATOL(value) <= kLogLevel) return {};
  return "keeps every line out of the log; write 1";
}

std::string PercentComplaint(const std::string& value) {
  const long percent = ATOL(value);
  if (percent >= kSlowestPercent && percent <= kFastestPercent) return {};
  return "is not in 1 to 100, where 1 is the slowest and 100 the fastest";
}

std::string SwitchComplaint(const std::string& value) {
  if (ATOB(value) || value == "False" || value == "false" || value == "FALSE") return {};
  return "counts as False; write True or False";
}

std::string NameComplaint(const std::string& value) {
  const auto isIt = [&](const INTERFACE_ROW& row) { return value == row.name; };
  if (std::any_of(std::begin(kInterfaces), std::end(kInterfaces), isIt)) return {};
  return "is not CAE, IO or MON, so this interface is ignored";
}

std::string EmptyComplaint(const std::string& value) {
  if (!value.empty()) return {};
  return "ends no line: every piece received counts as one line; write \\r\\n";
}

std::string HighPortComplaint(const std::string& value) {
  if (ATOL(value) <= kHighestPort) return {};
  return "is above 65535, so talp would listen on another port; choose one of 1025 to 65535";
}

bool May(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string UserName() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  const passwd* const user = getpwuid(geteuid());
  return "user " + (user == nullptr ? std::to_string(geteuid()) : std::string(user->pw_name));
}

std::string LogFileComplaint(const std::string& value) {
  if (value.empty()) return {};  // found as the lack of a log
  if (value.front() != '/')
    return "depends on the directory where the daemon is started; write an absolute path";
  const std::string directory = value.substr(0, value.rfind('/') + 1);
  if (value == directory || !May(directory, F_OK))
    return "is a directory, or in one that is missing";
  if (May(value, F_OK) ? May(value, W_OK) : May(directory, W_OK | X_OK)) return {};
  return "cannot be written by " + UserName() +
         ", and talp then runs without a log; give it to that user or name another file";
}

struct ATTRIBUTE_RULE {
  const char* element;
  const char* attribute;
  SEVERITY severity;
  COMPLAINT complaint;
};

// An attribute with more than one rule stands in several rows, one that takes any value in none.
const ATTRIBUTE_RULE kAttributeRules[] = {
    {"Debuglog", "File", kWarning, LogFileComplaint},
    {"Debuglog", "Loglevel", kWarning, NumberComplaint},
    {"Debuglog", "Loglevel", kWarning, LoglevelComplaint},
    {"Speed", "Percent", kWarning, NumberComplaint},
    {"Speed", "Percent", kWarning, PercentComplaint},
    {"InitPollState", "Action", kWarning, SwitchComplaint},
    {"AutoDiscover", "Action", kWarning, SwitchComplaint},
    {kEntry, "Name", kWarning, NameComplaint},
    {kEntry, "InpSeparator", kWarning, EmptyComplaint},
    {kEntry, "Port", kWarning, NumberComplaint},
    {kEntry, "Port", kError, HighPortComplaint},
};

bool IsReadElement(const std::string& name) {
  const std::vector<SETTING> all = AllSettings();
  return name == kInterfacesElement ||
         std::any_of(all.begin(), all.end(),
                     [&](const SETTING& setting) { return name == setting.element; });
}

bool IsReadAttribute(const std::string& element, const std::string& attribute) {
  const std::vector<SETTING> all = AllSettings();
  return std::any_of(all.begin(), all.end(), [&](const SETTING& setting) {
    return element == setting.element && attribute == setting.attribute;
  });
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// One walk of a document, beside the daemon's own reading of the same file.
class CONFIG_WALK {
 public:
  explicit CONFIG_WALK(const std::string& path)
      : path_(path), config_(ReadConfigFile(path.c_str())) {}

  FINDINGS Run();

 private:
  bool Load();
  void WalkRoot(const pugi::xml_node& root);
  void WalkElement(const pugi::xml_node& element);
  void WalkEntries(const pugi::xml_node& interfaces);
  void WalkEntry(const pugi::xml_node& entry, std::size_t index);
  void WalkAttributes(const pugi::xml_node& element, const char* ruleName);
  void ApplyRules(const pugi::xml_node& element, const char* ruleName,
                  const pugi::xml_attribute& attribute);
  void LookForText(const pugi::xml_node& element);
  void LookForElements(const pugi::xml_node& element);
  void JudgeResult();
  void JudgePort(const NAMED_INTERFACE& named);
  void JudgeSharedPorts();
  void Conclude();

  bool Seen(const std::string& thing);
  std::string PlaceAt(std::ptrdiff_t offset) const;
  void Add(SEVERITY severity, const pugi::xml_node& node, const std::string& text);
  void Add(SEVERITY severity, const std::string& text);

  const std::string path_;
  const CONFIG_DESCRIPTOR config_;
  std::string text_;
  pugi::xml_document document_;
  std::vector<std::string> seen_;  // the element and interface names met so far
  FINDINGS findings_;
};

FINDINGS CONFIG_WALK::Run() {
  if (!Load()) return findings_;
  const pugi::xml_node root = document_.child(kRootElement);
  if (!root) {
    Add(kError, "there is no root element TALPConfig, so nothing in this file is read");
    return findings_;
  }
  WalkRoot(root);
  if (config_.errorText == kNoConfigError) {
    JudgeResult();
  } else {
    Add(kError, "talp does not start: " + config_.errorText +
                    "; give every interface a Port of 1025 to 65535");
  }
  Conclude();
  return findings_;
}

bool CONFIG_WALK::Load() {
  text_ = ReadFile(path_);
  const pugi::xml_parse_result result = document_.load_buffer(text_.data(), text_.size());
  if (result && config_.errorText != kConfigLoadError) return true;
  if (access(path_.c_str(), R_OK) != 0) {
    Add(kError, "talp does not start: this file is missing or not readable by " + UserName());
  } else {
    findings_.push_back(
        {kError, PlaceAt(result.offset),
         std::string("talp does not start: this is not well-formed XML: ") + result.description()});
  }
  return false;
}

void CONFIG_WALK::WalkRoot(const pugi::xml_node& root) {
  WalkAttributes(root, root.name());
  LookForText(root);
  for (const pugi::xml_node& element : root.children()) {
    if (element.type() == pugi::node_element) WalkElement(element);
  }
}

void CONFIG_WALK::WalkElement(const pugi::xml_node& element) {
  const std::string name = element.name();
  if (!IsReadElement(name)) {
    Add(kWarning, element, "the element " + name + " is not known and has no effect");
    return;
  }
  if (name == "Speed" && Seen(kInterfacesElement)) {
    Add(kWarning, element,
        "Speed stands after Interfaces and does not reach them; move it before Interfaces");
  }
  if (Seen(name)) {
    Add(kWarning, element, "a second " + name + "; its values replace those of the first");
  }
  seen_.push_back(name);
  WalkAttributes(element, element.name());
  LookForText(element);
  if (name == kInterfacesElement) {
    WalkEntries(element);
  } else {
    LookForElements(element);
  }
}

void CONFIG_WALK::WalkEntries(const pugi::xml_node& interfaces) {
  std::size_t index = 0;
  for (const pugi::xml_node& entry : interfaces.children()) {
    if (entry.type() == pugi::node_element) WalkEntry(entry, index++);
  }
}

void CONFIG_WALK::WalkEntry(const pugi::xml_node& entry, std::size_t index) {
  const std::string name = entry.attribute("Name").value();
  if (index >= kMaxEntries) {
    Add(kWarning, entry, "the interface " + Quoted(name) + " is ignored: only four are read");
    return;
  }
  if (!entry.attribute("Name")) {
    Add(kWarning, entry, "this interface has no Name and is ignored; write CAE, IO or MON");
  } else if (Seen("interface " + name)) {
    Add(kWarning, entry, "a second interface " + Quoted(name) + " replaces the first; keep one");
  }
  seen_.push_back("interface " + name);
  WalkAttributes(entry, kEntry);
  LookForText(entry);
  LookForElements(entry);
}

void CONFIG_WALK::WalkAttributes(const pugi::xml_node& element, const char* ruleName) {
  for (const pugi::xml_attribute& attribute : element.attributes()) {
    if (IsReadAttribute(ruleName, attribute.name())) {
      ApplyRules(element, ruleName, attribute);
    } else {
      Add(kWarning, element,
          std::string("the attribute ") + attribute.name() + " of " + element.name() +
              " is not known and has no effect");
    }
  }
}

void CONFIG_WALK::ApplyRules(const pugi::xml_node& element, const char* ruleName,
                             const pugi::xml_attribute& attribute) {
  const std::string value = attribute.value();
  for (const ATTRIBUTE_RULE& rule : kAttributeRules) {
    if (std::string(rule.element) != ruleName) continue;
    if (std::string(rule.attribute) != attribute.name()) continue;
    const std::string complaint = rule.complaint(value);
    if (complaint.empty()) continue;
    Add(rule.severity, element,
        std::string(element.name()) + " " + rule.attribute + " " + Quoted(value) + " " + complaint);
  }
}

void CONFIG_WALK::LookForText(const pugi::xml_node& element) {
  if (*element.child_value() == '\0') return;
  Add(kWarning, element,
      std::string("the text inside ") + element.name() + " is not read: values are attributes");
}

void CONFIG_WALK::LookForElements(const pugi::xml_node& element) {
  for (const pugi::xml_node& child : element.children()) {
    if (child.type() != pugi::node_element) continue;
    Add(kWarning, child,
        std::string("the element ") + child.name() + " inside " + element.name() + " is not read");
  }
}

void CONFIG_WALK::JudgeResult() {
  const auto interfaces = InterfacesOf(config_);
  for (const NAMED_INTERFACE& named : interfaces) JudgePort(named);
  if (std::none_of(interfaces.begin(), interfaces.end(), Listens)) {
    Add(kError, "no interface has a Port, so nobody can connect to talp");
  }
  JudgeSharedPorts();
  if (config_.logFile.empty()) Add(kWarning, "there is no log: Debuglog names no File");
}

// Without a port the daemon starts all the same, and the interface does not listen.
void CONFIG_WALK::JudgePort(const NAMED_INTERFACE& named) {
  if (Listens(named)) return;
  const std::string name = named.name;
  if (named.interface->name.empty()) {
    Add(kWarning, "the interface " + name + " is missing and does not listen; if it should, add " +
                      "<Interface Name=\"" + name + "\" Port=\"...\"/> to Interfaces");
  } else {
    Add(kWarning,
        "the interface " + name +
            " has no Port and does not listen; if it should, choose one of 1025 to 65535");
  }
}

void CONFIG_WALK::JudgeSharedPorts() {
  const auto interfaces = InterfacesOf(config_);
  for (auto first = interfaces.begin(); first != interfaces.end(); ++first) {
    for (auto second = std::next(first); second != interfaces.end(); ++second) {
      if (!Listens(*first) || first->interface->port != second->interface->port) continue;
      Add(kError, std::string("the interfaces ") + first->name + " and " + second->name +
                      " have one Port, " + std::to_string(first->interface->port) +
                      ", and only one of them can listen there; give each its own");
    }
  }
}

void CONFIG_WALK::Conclude() {
  if (!findings_.empty()) return;
  std::string ports;
  for (const NAMED_INTERFACE& named : InterfacesOf(config_)) {
    ports += std::string(named.name) + " on port " + std::to_string(named.interface->port) + ", ";
  }
  Add(kFine, ports + "log in " + config_.logFile);
}

bool CONFIG_WALK::Seen(const std::string& thing) {
  return std::find(seen_.begin(), seen_.end(), thing) != seen_.end();
}

std::string CONFIG_WALK::PlaceAt(std::ptrdiff_t offset) const {
  const auto length =
      std::min(static_cast<std::size_t>(std::max<std::ptrdiff_t>(offset, 0)), text_.size());
  const auto end = std::next(text_.begin(), static_cast<std::ptrdiff_t>(length));
  return path_ + ":" + std::to_string(1 + std::count(text_.begin(), end, '\n'));
}

void CONFIG_WALK::Add(SEVERITY severity, const pugi::xml_node& node, const std::string& text) {
  findings_.push_back({severity, PlaceAt(node.offset_debug()), text});
}

void CONFIG_WALK::Add(SEVERITY severity, const std::string& text) {
  findings_.push_back({severity, path_, text});
}

}  // namespace

FINDINGS CheckConfig(const std::string& path) { return CONFIG_WALK(path).Run(); }

std::vector<NAMED_INTERFACE> InterfacesOf(const CONFIG_DESCRIPTOR& config) {
  std::vector<NAMED_INTERFACE> interfaces;
  for (const INTERFACE_ROW& row : kInterfaces) {
    interfaces.push_back({row.name, &(config.*row.settings)});
  }
  return interfaces;
}

bool Listens(const NAMED_INTERFACE& named) { return named.interface->port != 0; }

}  // namespace check
