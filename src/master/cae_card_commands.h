#ifndef TALP_MASTER_CAE_CARD_COMMANDS_H_
#define TALP_MASTER_CAE_CARD_COMMANDS_H_

#include <optional>
#include <string>

#include "master/cae_context.h"
#include "master/card_kinds.h"

// Where a byte of a card command's payload comes from.
enum class SOURCE {
  kNothing,   // no byte: the payload ends
  kLiteral,   // `base`
  kState,     // FF for ON, 00 for OFF; any other argument repeats what this command sent last
  kValue,     // the two digits after '='
  kChannel,   // `base` plus the digit before ':'
  kServoSet,  // like kChannel; the base is `baseB` if the character two places before ':' is B
};

struct PAYLOAD_BYTE {
  SOURCE source = SOURCE::kNothing;
  unsigned char base = 0;
  unsigned char baseB = 0;
};

// Whether a card command changes or reads something; the third byte of its payload.
enum class CARD_ACCESS : unsigned char { kWrite = 0x01, kRead = 0x40 };

// A console command that sends one request to one card. The payload starts with the direct
// command, the address and `access`. Placeholders of the success lines, each at most once in one of
// them:
//   {typed}    the address as typed       {address} the address in hexadecimal
//   {state}    the state as shown         {value}   the value after '=', two hexadecimal digits
//   {set}      two places before ':'      {channel} the character before ':', as typed
//   {number}   {channel} in decimal       {answer}  the value in the card's answer, two
//                                                   hexadecimal digits
struct CARD_COMMAND {
  std::optional<KIND_CODE> kind;  // none: the command is for every kind
  const char* kindError;
  CARD_ACCESS access;
  PAYLOAD_BYTE payload[2];
  const char* success[2];  // null: no such line
  const char* failure;
};

// Runs `command` with the arguments in `line`: checks the card's kind, sends the request, waits one
// second and answers. `rememberedState` holds the state byte that this command last made of ON or
// OFF, and is updated. The console's thread only.
void RunCardCommand(const CARD_COMMAND& command, const std::string& line,
                    const CAE_CONTEXT& console, unsigned char* rememberedState);

#endif  // TALP_MASTER_CAE_CARD_COMMANDS_H_
