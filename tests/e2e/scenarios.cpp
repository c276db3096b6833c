#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "harness.h"

namespace e2e {
namespace {

const char* const kBus = "/dev/ttyUSB0";
const LINES kAllCards = {
    "--link",         kBus,           "--version-text", "2.07",          "--frames",
    "--card=0=servo", "--card=3=din", "--card=4=motor", "--card=5=dout", "--card=8=keypad",
    "--card=9=ir",    "--card=E=lcd", "--card=F=analog"};

LINES HardwareFound(const std::string& device) {
  return {"[INF] try to catch hardware on " + device,
          "[INF] hardware found on " + device + " version: 2.07"};
}

// Handshake and discovery. Exchanges come one after the other, so that the answer to a second one
// tells that the daemon has taken in the discovery.
void ExpectDiscovery(CLIENT* cae, CARD_BUS* bus) {
  bus->ExpectNext({"rx 03 40 6F 9A", "tx 05 40 32 2E 30 37", "rx 01 30",
                   "tx 11 31 05 00 00 04 06 03 00 00 08 0A 00 00 00 00 09 07"});
  cae->Ask("REBOOT:5", {"CIA: Card is REBOOTED", "RBT:0x5:OK", ">"});
  bus->ExpectNext({"rx 04 50 05 01 AB", "direct 5 reboot", "tx 04 51 05 AB 00"});
}

TEST(EndToEnd, Start) {
  Play([](STAGE& stage) {
    // Without the PID file's directory.
    Check(rmdir(kPidDirectory) == 0, "PID directory not empty");
    stage.Launch();
    stage.ExpectEnd(-1, W_EXITCODE(1, 0));
    EXPECT_EQ(ReadFile(kOutputFile), "Couldn't open pid file.\n");
    std::filesystem::create_directory(kPidDirectory);

    // Without a configuration: told to syslog.
    const int syslog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    unlink(address.sun_path);
    Check(bind(syslog, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "no /dev/log");
    pid_t daemon = stage.LaunchDaemon();
    stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(daemon));
    char notice[200] = "";
    Check(recv(syslog, notice, sizeof notice - 1, MSG_DONTWAIT) > 0, "no syslog notice");
    close(syslog);
    // The priority, user and notice, stands before the time, which is not compared.
    EXPECT_EQ(std::string(notice, 4), "<13>");
    const std::string text = " talp: Unable to start by user " + std::to_string(getuid()) +
                             ", because unable to load config, or unable to parse XML file!";
    EXPECT_EQ(std::string(notice).substr(strlen("<13>Nov 22 10:00:00")), text);

    CONFIG config;
    config.caePort = 1024;
    WriteConfig(config);
    daemon = stage.LaunchDaemon();
    stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    stage.log.Expect({"[INF] talp is started", "[ERR] CAE interface port number is less than 1025",
                      "[INF] talp is stopped with error"});
    EXPECT_FALSE(stage.log.Has("["));

    // A stale PID file is longer than what replaces it.
    WriteFile(kPidFile, "99999999 stale\n");
    WriteConfig(CONFIG());
    daemon = stage.LaunchDaemon();
    stage.log.Expect(
        {"[INF] talp is started", "[INF] Initparam Autodiscover: TRUE",
         "[INF] Initparam Enablepoll: FALSE", "[INF] Initparam Speed (ThreadDelay): 2525",
         "[INF] CAE interface listening on port 5001", "[INF] IO interface listening on port 5002",
         "[INF] MON interface listening on port 5003"});
    stage.log.ExpectLine("[INF] CAE interface is waiting for incoming connection");
    stage.log.ExpectLine("[ERR] ttyUSB devices couldn't be found");

    // A second one takes over the PID file, and finds its ports taken.
    const pid_t second = stage.LaunchDaemon();
    stage.log.Expect({"[INF] talp is started", "[ERR] couldn't bind socket forCAE interface",
                      "[INF] CAE interface listening on port 5001",
                      "[ERR] couldn't bind socket forIO interface",
                      "[INF] IO interface listening on port 5002"});
    kill(second, SIGTERM);
    stage.Stop(second, SIGTERM);
    CLIENT io(&stage.log, "IO");
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(second));
  });
}

// IO lines become frames while nothing is polled, so that the wire shows nothing else.
void DriveOutputs(CLIENT* io, CARD_BUS* bus) {
  io->Send("a5b1dFB\r\na5b0d0F\r\n");
  bus->ExpectNext({"rx 05 10 05 02 FF FB", "out 5 dout b0=FF b1=FB", "tx 02 41 05",
                   "rx 05 10 05 02 0F FB", "out 5 dout b0=0F b1=FB", "tx 02 41 05"});
  io->Send("a1b0d01\r\na0b4d40\r\n");  // no card at 1
  bus->ExpectNext(
      {"rx 09 10 00 06 80 80 80 80 40 80", "out 0 servo 80 80 80 80 40 80", "tx 02 41 00"});
  io->Send("a4b0d7F");  // without a separator
  bus->ExpectNext({"rx 07 10 04 04 7F 00 00 00", "out 4 motor 7F 00 00 00", "tx 02 41 04"});
  io->Send("a9sHS4F4B5\r\n");  // with an odd digit
  bus->ExpectNext({"rx 06 10 09 03 02 4F 4B", "ir 9 4F 4B \"OK\"", "tx 02 41 09"});
  io->Send("aElCL\r\n");
  bus->ExpectNext({"rx 04 10 0E 01 00", "lcd E clear", "tx 02 41 0E"});
  io->Send("aElPAp0301tTail of the cat\r\n");
  bus->ExpectNext({"rx 16 10 0E 13 09 03 01 54 61 69 6C 20 6F 66 20 74 68 65 20 63 61 74 00",
                   "lcd E text 3,1 \"Tail of the cat\"", "lcd E row 0 |                    |",
                   "lcd E row 1 |   Tail of the cat  |", "lcd E row 2 |                    |",
                   "lcd E row 3 |                    |", "tx 02 41 0E"});
}

TEST(EndToEnd, Bus) {
  Play([](STAGE& stage) {
    CARD_BUS* const bus = stage.AddBus(kAllCards);
    stage.Start();
    stage.log.Expect(HardwareFound(kBus));
    CLIENT cae(&stage.log, "CAE");
    CLIENT io(&stage.log, "IO");
    ExpectDiscovery(&cae, bus);
    DriveOutputs(&io, bus);

    // A monitor sees what is typed as it is typed, and reads are cut at 255 bytes and at a NUL.
    CLIENT mon(&stage.log, "MON");
    const auto bothExpect = [&mon](CLIENT* client, const std::string& line) {
      client->Expect(line + "\r\n\r");
      mon.Expect(line + "\r\n\r");
    };
    const auto refused = [](const std::string& command) {
      return "COE:Illegal command -> " + command + "\r\n\r>\r\n\r";
    };
    const std::string whole(255, 'x');
    const std::string rest(45, 'x');
    io.Send(whole + rest);
    cae.Expect(refused(whole) + refused(rest));
    mon.Expect(whole + "\r" + rest + "\r");
    io.Send("EXIT");  // without its separator
    cae.Expect(refused("EXIT"));
    mon.Expect("EXIT\r");
    io.Send(std::string("a5b0d00\0a5b0d11\r\n", 17));
    mon.Expect("a5b0d00\r");
    bus->ExpectLine("out 5 dout b0=00 b1=FB");
    bus->ExpectNext({"tx 02 41 05"});

    // Six answers of the analogue card are summed, the seventh gives the average.
    bus->Type("set 3 1 40\nset F 0 FF\nset F 3 80");
    cae.Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
    bus->ExpectNext({"rx 03 20 03 02", "tx 04 21 03 00 40", "rx 03 20 08 01", "tx 03 21 08 00",
                     "rx 03 20 0F 06", "tx 08 21 0F FF 00 00 80 00 00", "rx 03 20 03 02"});
    for (const char* line : {"a3b1d40", "aFb0dFF", "aFb3d80"}) bothExpect(&io, line);
    cae.Ask("DISABLEPOLL", {"CIA: GLOBAL POLLING IS DISABLED", ">"});

    // A direct answer tells the last changes once more: one good round of polls, then errors only.
    bus->Type("set 3 0 81\nfault long 3 on poll\nfault error forever 4E on poll");
    cae.Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
    bothExpect(&io, "a3b0d81");
    cae.Ask("DISABLEPOLL", {"CIA: GLOBAL POLLING IS DISABLED", ">"});
    cae.Ask("REBOOT:3", {"CIA: Card is REBOOTED", "RBT:0x3:OK", ">"});
    bothExpect(&io, "a3b0d81");
    bus->Type("fault off");

    // Without an IO client the monitor gets nothing either. A console answer shows that the master
    // has been through the line of before.
    io.Send("EXIT\r\n");
    io.Expect("TALP: Bye Bye...\r\n\r");
    io.ExpectEnd();
    stage.log.ExpectLine("[INF] connection is closed by command on IO interface");
    bus->Type("set 3 0 40");
    cae.Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
    bus->ExpectLine("tx 04 21 03 40 40");
    bus->ExpectLine("rx 03 20 03 02");
    cae.Ask("DISABLEPOLL", {"CIA: GLOBAL POLLING IS DISABLED", ">"});
    stage.log.ExpectLine("[INF] IO interface listening on port 5002");
    CLIENT next(&stage.log, "IO");
    bus->Type("set 8 0 2A");
    cae.Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
    bothExpect(&next, "a8b0d2A");
    EXPECT_FALSE(stage.log.Has("[ERR]"));
  });
}

TEST(EndToEnd, Link) {
  Play([](STAGE& stage) {
    // A name too long for the listing is read as two wrong ones.
    WriteFile("/dev/ttyUSB100", "");
    pid_t daemon = stage.Start();
    stage.log.Expect({"[ERR] unable to  open /dev/ttyUSB10 for hardware communication",
                      "[ERR] unable to  open /dev/ for hardware communication"});
    unlink("/dev/ttyUSB100");
    stage.log.ExpectLine("[ERR] ttyUSB devices couldn't be found");
    stage.Stop(daemon, SIGTERM);

    // Of two adapters the first is silent.
    CONFIG polling;
    polling.poll = true;
    CARD_BUS* const silent = stage.AddBus({"--link", kBus, "--silent"});
    CARD_BUS* const bus = stage.AddBus(
        {"--link", "/dev/ttyUSB1", "--version-text", "2.07", "--frames", "--card=2=analog"});
    const LINES silentTried = {"[INF] try to catch hardware on /dev/ttyUSB0",
                               "[INF] comm timeout /dev/ttyUSB0"};
    daemon = stage.Start(polling);
    stage.log.Expect(silentTried);
    stage.log.Expect(HardwareFound("/dev/ttyUSB1"));
    bus->ExpectNext({"rx 03 40 6F 9A", "tx 05 40 32 2E 30 37", "rx 01 30",
                     "tx 11 31 00 00 07 00 00 00 00 00 00 00 00 00 00 00 00 00", "rx 03 20 02 06"});

    // Every reconnect discovers anew, and each discovery makes the poll frame longer.
    bus->Type("fault lost on poll");
    stage.log.ExpectLine("[INF] comm timeout /dev/ttyUSB1");
    stage.log.Expect(silentTried);
    stage.log.Expect(HardwareFound("/dev/ttyUSB1"));
    bus->ExpectLine("rx 01 30");
    bus->ExpectLine("rx 06 20 02 06 20 02 06");

    // A reply that promises too much is none. The first adapter is gone now.
    silent->Type("hangup");
    bus->Type("fault overlong 1 132 on poll");
    stage.log.ExpectLine("[INF] comm timeout /dev/ttyUSB1");
    stage.log.Expect(HardwareFound("/dev/ttyUSB1"));
    bus->ExpectLine("rx 09 20 02 06 20 02 06 20 02 06");

    // Whatever answers the handshake with an error code is taken as well, without a word.
    bus->Type("fault error 4E on handshake\nfault short on poll");
    stage.log.Expect(
        {"[INF] comm timeout /dev/ttyUSB1", "[INF] try to catch hardware on /dev/ttyUSB1"});
    bus->ExpectLine("tx 05 4E 32 2E 30 37");
    bus->ExpectLine("rx 0C 20 02 06 20 02 06 20 02 06 20 02 06");
    EXPECT_FALSE(stage.log.Has("hardware found"));

    bus->Type("hangup");
    stage.log.ExpectLine("[INF] comm timeout /dev/ttyUSB1");
    stage.log.ExpectLine("[ERR] ttyUSB devices couldn't be found");
    bus->Type("return /dev/ttyUSB7");
    stage.log.Expect(HardwareFound("/dev/ttyUSB7"));
    bus->ExpectLine("rx 0F 20 02 06 20 02 06 20 02 06 20 02 06 20 02 06");
  });
}

struct CARD_COMMAND {
  std::string line;  // with @ for the address
  char address;
  const char* frame;
  LINES success;
  const char* failure;
  const char* kindError;
};

const char* const kLcdOnly = "CIE: THIS COMMAND IS VALID FOR LCD CONTROL CARD ONLY";
const char* const kAnalogOnly = "CIE: THIS COMMAND IS VALID ON ANALOG INPUT CARD ONLY";
const char* const kServoOnly = "CIE: THIS COMMAND IS VALID ON SERVO CONTROLLER CARD ONLY";
const char* const kServoLegal = "CIE: THIS COMMAND IS LEGAL ON SERVO CONTROLLER CARD ONLY";
const char* const kMotorOnly = "CIE: THIS COMMAND IS VALID ON DC MOTOR CONTROLLER CARD ONLY";

// clang-format off
const CARD_COMMAND kCardCommands[] = {
    {"LCDSELFTEST:@=ON", 'E', "rx 05 50 0E 01 01 FF",
     {"CIA: SELFTEST STATE IS SET TO ON at address E"}, "CIE: STATE WRITE ERROR", kLcdOnly},
    {"LCDINITLIGHT:@=OF", 'E', "rx 05 50 0E 01 02 00",
     {"CIA: INITLIGHT STATE IS SET TO OFF at address E"}, "CIE: STATE WRITE ERROR", kLcdOnly},
    {"REBOOT:@", '5', "rx 04 50 05 01 AB", {"CIA: Card is REBOOTED", "RBT:0x5:OK"},
     "CIE: BUS WRITE ERROR", nullptr},
    {"SETANMASK:@=3F", 'F', "rx 05 50 0F 01 01 3F",
     {"CIA: Channel MASK of the card is SET", "AMS:0xF:0x3F"},
     "CIE: MASK WRITE ERROR", kAnalogOnly},
    {"GETANMASK:@", 'F', "rx 04 50 0F 40 01", {"CIA: MASK is GOT from card", "AMV:0xF:0x2A"},
     "CIE: MASK READ ERROR", kAnalogOnly},
    {"STOREANMASK:@", 'F', "rx 04 50 0F 01 02", {"CIA: MASK IS STORED at address F"},
     "CIE: MASK STORE ERROR", kAnalogOnly},
    {"STORESRVPOS:@", '0', "rx 04 50 00 01 74", {"CIA: POSITIONS ARE STORED at address 0"},
     "CIE: POSITION STORING ERROR", kServoOnly},
    {"MOVESTRPOS:@", '0', "rx 04 50 00 01 3F",
     {"CIA: SERVOS ARE MOVED TO STORED POSITIONS at address 0"},
     "CIE: POSITIONS MOVING ERROR", kServoLegal},
    {"SETSCB3:@=80", '0', "rx 05 50 00 01 D3 80",
     {"CIA: SERVO PARAM of the card is SET", "SPS:0x0:SCB3:0x80"},
     "CIE: PARAM WRITE ERROR", kServoOnly},
    {"GETSCA3:@", '0', "rx 04 50 00 40 24",
     {"CIA: SERVO PARAM is GOT from card", "SPG:0x0:SCA3:0x33"},
     "CIE: PARAM READ ERROR", kServoOnly},
    {"SETMSR1:@=20", '4', "rx 05 50 04 01 C1 20",
     {"CIA: MSR value of the card is SET", "MPS:0x4:MSR1:0x20"},
     "CIE: PARAM WRITE ERROR", kMotorOnly},
    {"GETMSR1:@", '4', "rx 04 50 04 40 02", {"CIA: MSR value is GOT from card", "MSR1:0x4:0x11"},
     "CIE: PARAM READ ERROR", kMotorOnly},
    {"STOREMSRS:@", '4', "rx 04 50 04 01 CD", {"CIA: MSR values are STORED at address 4"},
     "CIE: MSR STORING ERROR", kMotorOnly},
};
// clang-format on

void RunCardCommand(const CARD_COMMAND& command, CLIENT* cae, CARD_BUS* bus) {
  const auto at = [&command](char address) {
    std::string line = command.line;
    std::replace(line.begin(), line.end(), '@', address);
    return line;
  };
  LINES success = command.success;
  success.push_back(">");
  cae->Ask(at(command.address), success);
  bus->ExpectLine(command.frame);
  bus->Type("fault notq");
  cae->Ask(at(command.address), {command.failure, ">"});
  bus->ExpectLine(command.frame);
  if (command.kindError != nullptr) cae->Ask(at('5'), {command.kindError, ">"});
}

LINES DiscoverList(const std::string& title, const std::string& at5, const std::string& at6) {
  const std::string e = "EMPTY";
  // clang-format off
  const std::string names[] = {
      "6 channel RC SERVO CONTROLLER", e, e, "16 channel DIGITAL INPUT",
      "3 channel DC MOTOR CONTROLLER", at5, at6, e, "KEYMX and ROTE CONTROLLER",
      "IR REMOTE CONTROLLER", e, e, e, e, "ALPHANUMERIC LCD CONTROLLER",
      "6 channel ANALOGUE INPUT"};
  // clang-format on
  LINES lines = {title};
  for (const std::string& name : names) {
    lines.push_back(std::string("DTI:0x") + "0123456789ABCDEF"[&name - names] + ":" + name);
  }
  lines.push_back(">");
  return lines;
}

void AskDriver(CLIENT* cae, CLIENT* io, CARD_BUS* bus) {
  cae->Send("DRVVER\r\n");
  cae->Expect("CIA: DRIVER VERSION 1.20\r\n\r>\r\n\r");
  cae->Send("drvver\r\n");
  cae->Expect("CIE: UNKNOWN COMMAND \r\n>\r\n\r");
  cae->Ask("DISCOVER", DiscoverList("DISCOVER LIST:", "16 channel DIGITAL OUTPUT", "EMPTY"));
  bus->Type("card 5 02\ncard 6 unknown");
  cae->Ask("FORCEDISCOVER", DiscoverList("FORCED DISCOVER LIST:", "UNIDENTIFIED", "CARD?"));
  bus->Type("card 5 dout\ncard 6 none");
  cae->Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
  cae->Ask("FORCEDISCOVER",
           DiscoverList("FORCED DISCOVER LIST:", "16 channel DIGITAL OUTPUT", "EMPTY"));

  bus->Type("set 3 0 40");
  io->Expect("a3b0d40\r\n\r");
  cae->Ask("POLLSTATE",
           {"CIA: GLOBAL POLLING IS ENABLED", "PTI:0x3:ON", "PTI:0x8:ON", "PTI:0xF:ON", ">"});
  cae->Ask("DISABLEPOLL", {"CIA: GLOBAL POLLING IS DISABLED", ">"});
  cae->Ask("POLLON:3 POLLOFF:3",
           {"CIA: POLLON is OK at address 3", "CIA: POLLOFF is OK at address 3", ">"});
  cae->Ask("POLLSTATE",
           {"CIA: GLOBAL POLLING IS DISABLED", "PTI:0x3:OFF", "PTI:0x8:ON", "PTI:0xF:ON", ">"});
  cae->Ask("POLLON:5", {"CIE: THIS COMMAND IS VALID ON INPUT CARDS", ">"});
  cae->Ask("GETLASTINPST:3=0", {"CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">"});
  io->Expect("a3b0d40\r\n\r");
  cae->Ask("GETLASTINPST:3=2", {"CIE: INVALID BLOCK NUMBER", ">"});
  cae->Ask("GETLASTINPST:8=0",
           {"CIE: THIS COMMAND IS VALID ON ANALOG OR DIGITAL INPUT CARD ONLY", ">"});
  for (const char* speed : {"0", "101", "fast"}) {
    cae->Ask(std::string("SPEED=") + speed, {"CIE: Parameter is out of range (1..100)", ">"});
  }
  cae->Ask("SPEED=75", {"CIA: SPEED IS SET to 75%", ">"});

  cae->Send("HELP\r\n");
  const LINES lines = cae->Take(70);
  EXPECT_EQ(lines.front(), "TALP quick HELP:");
  EXPECT_EQ(lines[68], "***** END OF IO INTERFACE COMMAND LIST *****");
  EXPECT_EQ(lines.back(), ">");
  cae->Send("IOEXAMPLES\r\n");
  const LINES examples = cae->Take(23);
  EXPECT_EQ(examples.front(), "BLOCK DEVICE OUTPUT EXAMPLES:");
  EXPECT_EQ(examples.back(), ">");
}

// One card after the other, each on a stage of its own: a second of silence before every exchange
// makes a busy machine late more often than a stream of polls does.
TEST(EndToEnd, CardCommands) {
  for (const char card : {'E', '5', 'F', '0', '4'}) {
    Play([card](STAGE& stage) {
      CARD_BUS* const bus = stage.AddBus(kAllCards);
      stage.Start();
      CLIENT cae(&stage.log, "CAE");
      ExpectDiscovery(&cae, bus);
      bus->Type("answer F 2A\nanswer 0 33\nanswer 4 11");
      for (const CARD_COMMAND& command : kCardCommands) {
        if (command.address == card) RunCardCommand(command, &cae, bus);
      }
    });
  }
}

TEST(EndToEnd, Console) {
  Play([](STAGE& stage) {
    CARD_BUS* const bus = stage.AddBus(kAllCards);
    stage.Start(CONFIG(), PACE::kReal);
    CLIENT io(&stage.log, "IO");
    {
      CLIENT cae(&stage.log, "CAE");
      ExpectDiscovery(&cae, bus);
      AskDriver(&cae, &io, bus);
      bus->Type("fault lost on direct");
      cae.Ask("REBOOT:5", {"CIE: BUS WRITE ERROR", ">"});
      stage.log.Expect(
          {"[INF] comm timeout /dev/ttyUSB0", "[INF] try to catch hardware on /dev/ttyUSB0"});
      cae.Ask("EXIT", {"TALP: Bye Bye..."});
      cae.ExpectEnd();
    }
    stage.log.Expect({"[INF] connection is closed by command on CAE interface",
                      "[INF] CAE interface listening on port 5001"});
    // The prompt of the last command waits for the next client, and so does what the IO client gets
    // wrong meanwhile. The banner comes behind both.
    io.Send("nonsense\r\na5b0d00\r\n");
    bus->ExpectLine("out 5 dout b0=00 b1=FF");
    CLIENT cae(&stage.log, "CAE", ">\r\n\rCOE:Illegal command -> nonsense\r\n\r>\r\n\r");
    cae.Ask("VALAMI", {"CIE: UNKNOWN COMMAND \r\n>"});
    EXPECT_FALSE(stage.log.Has("[ERR]"));
  });
}

// The threads of a process, and its descriptors above the standard ones that an executed program
// would inherit.
void ExpectThreadsAndDescriptors(pid_t daemon) {
  const std::string process = "/proc/" + std::to_string(daemon);
#ifndef __SANITIZE_THREAD__  // which adds threads of its own
  using THREADS = std::filesystem::directory_iterator;
  EXPECT_EQ(std::distance(THREADS(process + "/task"), THREADS()), 5);
#endif
  int descriptors = 0;
  for (const auto& entry : std::filesystem::directory_iterator(process + "/fdinfo")) {
    if (std::atoi(entry.path().filename().c_str()) <= STDERR_FILENO) continue;
    const std::string info = ReadFile(entry.path());
    const size_t flags = info.find("flags:");
    if (flags == std::string::npos) continue;  // closed meanwhile
    ++descriptors;
    EXPECT_NE(std::strtol(&info[flags + 6], nullptr, 8) & 02000000, 0) << entry.path() << info;
  }
  EXPECT_GE(descriptors, 7);  // three listeners, three clients, the tty
}

TEST(EndToEnd, Stop) {
  Play([](STAGE& stage) {
    CARD_BUS* const bus = stage.AddBus(kAllCards);
    pid_t daemon = stage.Start();
    {
      CLIENT cae(&stage.log, "CAE");
      CLIENT io(&stage.log, "IO");
      CLIENT mon(&stage.log, "MON");
      ExpectDiscovery(&cae, bus);
      ExpectThreadsAndDescriptors(daemon);
      stage.Stop(daemon, SIGINT);
      for (CLIENT* const client : {&cae, &io, &mon}) client->ExpectEnd();
    }

    // An IO client that never reads holds up its own interface and nothing else: the first line,
    // with a separator larger than what the connection buffers, blocks the task in its write.
    WriteFile("/proc/sys/net/ipv4/tcp_wmem", "4096 4096 4096");
    CONFIG config;
    config.ioOutSeparator = std::string(1 << 18, '-');
    daemon = stage.Start(config);
    {
      CLIENT io(&stage.log, "IO", "", 2048);
      CLIENT cae(&stage.log, "CAE");
      ExpectDiscovery(&cae, bus);
      cae.Ask("GETLASTINPST:3=0", {"CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">"});
      io.AwaitUnread();
      cae.Ask("EXIT", {"TALP: Bye Bye..."});
      cae.ExpectEnd();
      stage.log.Expect({"[INF] connection is closed by command on CAE interface",
                        "[INF] CAE interface listening on port 5001"});
      stage.Stop(daemon, SIGTERM);
    }

    daemon = stage.Start();
    kill(daemon, SIGHUP);
    stage.ExpectEnd(daemon, W_EXITCODE(0, SIGHUP));
    EXPECT_FALSE(stage.log.Has("stopped"));
  });
}

}  // namespace
}  // namespace e2e
