#ifndef TALP_MASTER_CAE_COMMANDS_H_
#define TALP_MASTER_CAE_COMMANDS_H_

#include <string>
#include <vector>

#include "master/cae_context.h"

// The command console. One thread only.
class CAE_CONSOLE {
 public:
  explicit CAE_CONSOLE(const CAE_CONTEXT& context);

  // Runs every command that matches `line`, in the order of the command table. Queues the answers
  // and the prompt, or the answer to an unknown command. Blocks while a command waits.
  void Execute(const std::string& line);

 private:
  const CAE_CONTEXT context_;
  // By row of the command table: the last state byte of the command.
  std::vector<unsigned char> rememberedStates_;
};

#endif  // TALP_MASTER_CAE_COMMANDS_H_
