#ifndef TALP_TOOLS_MQTT_NODE_H_
#define TALP_TOOLS_MQTT_NODE_H_

#include <bitset>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "mqtt/attempts.h"
#include "mqtt/names.h"
#include "mqtt/translate.h"

namespace mqtt {

// The card bus, as talp's log tells.
enum class BUS { kUnknown, kOffline, kOnline };

// A board as a node of the broker: what is known of its cards, what its topics say, and what
// becomes of commands. It knows no descriptor, and no clock but OnTime(). It parses untrusted
// input. One thread.
class NODE {
 public:
  // `separator` ends the lines of the IO port. `restores`: outputs that talp may have forgotten are
  // sent again.
  NODE(NAMES nodeNames, std::string separator, bool hasConsole, bool restores);
  virtual ~NODE() = default;

  const NAMES names;

  // Filters of the topics to read back when the broker is there, by packet, and of those to obey.
  std::vector<std::vector<std::string>> RetainedFilters() const;
  std::vector<std::string> CommandFilters() const;

  // What the broker retains. The bytes are anybody's.
  void OnRetained(const std::string& topic, const std::string& payload);

  // All that is retained has been read, so it is completed and corrected; or the broker is lost.
  void OnBroker(bool ready);

  // A command, which is sent, refused, or sent or refused by OnTime() within two seconds. The bytes
  // are anybody's.
  void OnMessage(const std::string& topic, const std::string& payload, bool retained);

  // The IO port has greeted, or is lost.
  void OnIo(bool greeted);

  // Does nothing if it is the same as before.
  void OnBus(BUS bus);

  // A line of the IO port. What comes before the greeting was meant for an earlier client and says
  // nothing of the present state.
  void OnLine(const std::string& line);

  // The console has listed the names of the kinds, one an address. Names of no kind are ignored.
  // False if talp has not found any card: then the list says nothing.
  bool OnKinds(const LINES& kindNames);

  // The last states of all inputs will come as lines. Those of cards that are not polled may never
  // have been read.
  void OnInputsAsked(const std::bitset<kAddressCount>& polled);

  // To be called several times a second, and when the IO port takes lines again.
  void OnTime(CLOCK::time_point now);

  // A command waits for the IO port.
  bool IsWaiting() const { return !waiting_.empty(); }

  // Whether the console is to be asked. It is to be after AskConsole(), until a visit begins.
  bool WantsConsole() const { return asks_ && greeted_ && bus_ != BUS::kOffline; }
  void AskConsole() { asks_ = hasConsole_; }
  void OnVisit() { asks_ = false; }

 private:
  struct COMMAND {
    std::string path;
    std::string payload;
    CLOCK::time_point arrival;
  };

  // An empty retained payload removes the topic.
  virtual void Publish(const std::string& topic, const std::string& payload, bool retain) = 0;
  // Sends lines to the IO port in one piece. False if it does not take them now.
  virtual bool Send(const LINES& lines) = 0;

  CARD& CardAt(int address) { return cards_[static_cast<std::size_t>(address)]; }
  bool IsOnline() const { return greeted_ && bus_ != BUS::kOffline && isDiscovered_; }
  void RequireOnline() const;
  bool Execute(const COMMAND& command);
  bool Restore(int address);
  void Refuse(const std::string& path, const std::string& payload, const std::string& reason);
  void RefuseWaiting(const std::string& reason);

  void Believe(int address);
  bool IsContradicted(int address, int block, unsigned char value) const;
  void SetKind(int address, const CARD_KIND& kind);
  void OnInput(int address, int block, unsigned char value);
  void ShowLine(const std::string& line);
  void ShowBlock(int address, int block, unsigned char value, bool isAgain);
  void UpdateStatus();
  void DoubtInputs(int address);
  void DoubtOutputs(int address);

  void Complete();
  bool IsUndecided(const std::string& topic) const;
  std::string Held(const std::string& topic) const;
  void Retain(const std::string& topic, const std::string& payload);
  void Remove(const std::string& topic);
  void Forget(const std::string& start);
  void ForgetBlock(int address, int block);
  void ForgetCard(int address);

  const std::string separator_;
  const bool hasConsole_;
  const bool restores_;
  CARDS cards_;
  std::map<std::string, std::string> true_;  // what the broker is to retain, by topic
  std::map<std::string, std::string> held_;  // what it retains, as far as it is the node's own
  std::deque<COMMAND> waiting_;
  std::bitset<kAddressCount> heard_;  // of cards that have sent a line since the console's list
  std::bitset<kAddressCount> polled_;
  CLOCK::time_point now_;
  CLOCK::time_point confirmBy_;  // inputs that are not confirmed by then are not known
  BUS bus_ = BUS::kUnknown;
  bool asks_ = false;
  bool greeted_ = false;
  bool isReady_ = false;      // the broker is there, and has been read back
  bool hasMemory_ = false;    // it has been so at least once
  bool kindsKnown_;           // the console has listed them at least once
  bool kindsFresh_ = false;   // the same since the IO port or the bus has come back
  bool isDiscovered_ = true;  // talp has cards at all
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_NODE_H_
