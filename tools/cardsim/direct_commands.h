#ifndef CARDSIM_DIRECT_COMMANDS_H
#define CARDSIM_DIRECT_COMMANDS_H

#include <optional>

#include "cardsim/bytes.h"
#include "cardsim/card.h"

namespace cardsim {

// Places of the LCD card's two boot options among its parameters.
constexpr size_t kLcdSelfTestParam = 0;
constexpr size_t kLcdInitLightParam = 1;

// The parameters of a factory-new card of the kind code.
CARD::PARAMS FactoryParams(unsigned char code);

// Carries out one direct command, given as what follows the card's address: an access byte (01
// writes, 40 reads), a command byte and, where the command has one, a value byte. Appends one
// line and returns the value byte of the answer, or nothing when the card knows no such command.
std::optional<unsigned char> RunDirectCommand(CARD& card, const BYTES& command, LINES* lines);

// " mask=3F" for each parameter that the card has.
std::string ParamsText(const CARD& card);

}  // namespace cardsim

#endif
