#ifndef TALP_NET_IO_COMMAND_H_
#define TALP_NET_IO_COMMAND_H_

#include <string>
#include <vector>

#include "core/byte_list.h"
#include "master/perifcard.h"

// The language in which IO clients set card outputs. Pure rules: the caller guards the records.

// The non-empty pieces of `text` between occurrences of `separator`; an empty separator splits
// nothing.
std::vector<std::string> SplitCommands(const std::string& text, const std::string& separator);

// What a command asks of the bus: a request payload for the card at `address`, 0..15.
struct IO_REQUEST {
  bool legal;
  int address;
  BYTE_LIST payload;
};

// Recognises one command and builds its request from the records `cards[0..15]`. A block command
// first stores its value in the addressed record, whatever the card's kind; for a card that takes
// no block frames it is legal and has an empty payload. An illegal command changes nothing. A
// missing or malformed hexadecimal digit counts as 0.
IO_REQUEST ParseIoCommand(const std::string& command, PERIFCARD* cards);

#endif  // TALP_NET_IO_COMMAND_H_
