#include "core/config.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <pugixml.hpp>

#include "core/byte_list.h"

namespace {

int NumberOf(const char* text) {
  constexpr long kLowest = std::numeric_limits<int>::min();
  constexpr long kHighest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(ATOL(text), kLowest, kHighest));
}

void ReplaceAll(const std::string& from, const std::string& to, std::string* text) {
  for (std::size_t at = text->find(from); at != std::string::npos; at = text->find(from, at)) {
    text->replace(at, from.size(), to);
  }
}

// Replaces the two escapes of separators, backslash r and backslash n.
std::string Unescaped(std::string text) {
  ReplaceAll("\\r", "\r", &text);
  ReplaceAll("\\n", "\n", &text);
  return text;
}

struct ELEMENT_RULE {
  const char* element;
  const char* attribute;
  void (*apply)(const char* value, CONFIG_DESCRIPTOR* config);
};

constexpr ELEMENT_RULE kElementRules[] = {
    {"Debuglog", "File", [](const char* value, CONFIG_DESCRIPTOR* c) { c->logFile = value; }},
    {"Debuglog", "Loglevel",
     [](const char* value, CONFIG_DESCRIPTOR* c) { c->logLevel = NumberOf(value); }},
    {"Speed", "Percent",
     [](const char* value, CONFIG_DESCRIPTOR* c) {
       c->threadDelay = DelayFromPercent(ATOL(value));
     }},
    {"InitPollState", "Action",
     [](const char* value, CONFIG_DESCRIPTOR* c) { c->pollEnable = ATOB(value); }},
    {"AutoDiscover", "Action",
     [](const char* value, CONFIG_DESCRIPTOR* c) { c->autoDiscover = ATOB(value); }},
};

// Of the entries below `Interfaces`.
struct ENTRY_RULE {
  const char* attribute;
  void (*apply)(const char* value, INTERFACE_DESCRIPTOR* interface);
};

constexpr char kPort[] = "Port";

constexpr ENTRY_RULE kEntryRules[] = {
    {"Name", [](const char* value, INTERFACE_DESCRIPTOR* i) { i->name = value; }},
    {"InpSeparator",
     [](const char* value, INTERFACE_DESCRIPTOR* i) { i->inpSeparator = Unescaped(value); }},
    {"OutSeparator",
     [](const char* value, INTERFACE_DESCRIPTOR* i) { i->outSeparator = Unescaped(value); }},
    {kPort, [](const char* value, INTERFACE_DESCRIPTOR* i) { i->port = NumberOf(value); }},
};

// Reads one document. An operation that returns false has set the error text, and the reading ends.
class CONFIG_READER {
 public:
  CONFIG_DESCRIPTOR Read(const pugi::xml_document& document);

 private:
  void ApplyAttributes(const pugi::xml_node& element);
  bool ReadInterfaces(const pugi::xml_node& element);
  bool ReadEntry(const pugi::xml_node& entry, INTERFACE_DESCRIPTOR* interface);
  void Store(const INTERFACE_DESCRIPTOR& interface);

  CONFIG_DESCRIPTOR config_;
  // By position in `Interfaces`. A second `Interfaces` element starts from the values that the
  // first one left.
  std::array<INTERFACE_DESCRIPTOR, kMaxEntries> entries_;
};

CONFIG_DESCRIPTOR CONFIG_READER::Read(const pugi::xml_document& document) {
  for (const pugi::xml_node& element : document.child(kRootElement).children()) {
    ApplyAttributes(element);
    const bool isInterfaces = std::strcmp(element.name(), kInterfacesElement) == 0;
    if (isInterfaces && !ReadInterfaces(element)) break;
  }
  return config_;
}

void CONFIG_READER::ApplyAttributes(const pugi::xml_node& element) {
  for (const pugi::xml_attribute& attribute : element.attributes()) {
    for (const ELEMENT_RULE& rule : kElementRules) {
      if (std::strcmp(rule.element, element.name()) != 0) continue;
      if (std::strcmp(rule.attribute, attribute.name()) != 0) continue;
      rule.apply(attribute.value(), &config_);
    }
  }
}

bool CONFIG_READER::ReadInterfaces(const pugi::xml_node& element) {
  std::size_t index = 0;
  for (const pugi::xml_node& entry : element.children()) {
    if (entry.type() != pugi::node_element) continue;
    if (index == kMaxEntries) break;
    INTERFACE_DESCRIPTOR* const interface = &entries_[index++];
    // `Speed` applies only to the entries that follow it.
    interface->delay = config_.threadDelay;
    if (!ReadEntry(entry, interface)) return false;
    Store(*interface);
  }
  return true;
}

bool CONFIG_READER::ReadEntry(const pugi::xml_node& entry, INTERFACE_DESCRIPTOR* interface) {
  for (const pugi::xml_attribute& attribute : entry.attributes()) {
    const std::string name = attribute.name();
    for (const ENTRY_RULE& rule : kEntryRules) {
      if (name == rule.attribute) rule.apply(attribute.value(), interface);
    }
    if (name == kPort && interface->port <= kHighestRefusedPort) {
      config_.errorText = interface->name + " interface port number is less than 1025";
      return false;
    }
  }
  return true;
}

void CONFIG_READER::Store(const INTERFACE_DESCRIPTOR& interface) {
  for (const INTERFACE_ROW& row : kInterfaces) {
    if (interface.name == row.name) config_.*row.settings = interface;
  }
}

}  // namespace

std::vector<SETTING> AllSettings() {
  std::vector<SETTING> all;
  for (const ELEMENT_RULE& rule : kElementRules) all.push_back({rule.element, rule.attribute});
  for (const ENTRY_RULE& rule : kEntryRules) all.push_back({kEntry, rule.attribute});
  return all;
}

CONFIG_DESCRIPTOR ReadConfigFile(const char* path) {
  pugi::xml_document document;
  if (document.load_file(path)) return CONFIG_READER().Read(document);
  CONFIG_DESCRIPTOR config;
  config.errorText = kConfigLoadError;
  return config;
}
