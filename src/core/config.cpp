#include "core/config.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <pugixml.hpp>

#include "core/byte_list.h"

namespace {

constexpr std::size_t kMaxEntries = 4;

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

// Reads one document. An operation that returns false has set the error text, and the reading ends.
class CONFIG_READER {
 public:
  CONFIG_DESCRIPTOR Read(const pugi::xml_document& document);

 private:
  using ATTRIBUTE_HANDLER = void (*)(const char* value, CONFIG_DESCRIPTOR* config);

  struct ELEMENT_RULE {
    const char* element;
    const char* attribute;
    ATTRIBUTE_HANDLER apply;
  };

  static const ELEMENT_RULE kElementRules[];

  void ApplyAttributes(const pugi::xml_node& element);
  bool ReadInterfaces(const pugi::xml_node& element);
  bool ReadEntry(const pugi::xml_node& entry, INTERFACE_DESCRIPTOR* interface);
  bool ReadPort(const char* value, INTERFACE_DESCRIPTOR* interface);
  void Store(const INTERFACE_DESCRIPTOR& interface);

  CONFIG_DESCRIPTOR config_;
  // By position in `Interfaces`. A second `Interfaces` element starts from the values that the
  // first one left.
  std::array<INTERFACE_DESCRIPTOR, kMaxEntries> entries_;
};

constexpr CONFIG_READER::ELEMENT_RULE CONFIG_READER::kElementRules[] = {
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

CONFIG_DESCRIPTOR CONFIG_READER::Read(const pugi::xml_document& document) {
  for (const pugi::xml_node& element : document.child("TALPConfig").children()) {
    ApplyAttributes(element);
    const bool isInterfaces = std::strcmp(element.name(), "Interfaces") == 0;
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
    if (name == "Name") {
      interface->name = attribute.value();
    } else if (name == "InpSeparator") {
      interface->inpSeparator = Unescaped(attribute.value());
    } else if (name == "OutSeparator") {
      interface->outSeparator = Unescaped(attribute.value());
    } else if (name == "Port" && !ReadPort(attribute.value(), interface)) {
      return false;
    }
  }
  return true;
}

bool CONFIG_READER::ReadPort(const char* value, INTERFACE_DESCRIPTOR* interface) {
  interface->port = NumberOf(value);
  if (interface->port > kHighestRefusedPort) return true;
  config_.errorText = interface->name + " interface port number is less than 1025";
  return false;
}

void CONFIG_READER::Store(const INTERFACE_DESCRIPTOR& interface) {
  if (interface.name == "IO") config_.io = interface;
  if (interface.name == "CAE") config_.cae = interface;
  if (interface.name == "MON") config_.mon = interface;
}

}  // namespace

CONFIG_DESCRIPTOR ReadConfigFile(const char* path) {
  pugi::xml_document document;
  if (document.load_file(path)) return CONFIG_READER().Read(document);
  CONFIG_DESCRIPTOR config;
  config.errorText = kConfigLoadError;
  return config;
}
