#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

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
    bind(syslog, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    pid_t daemon = stage.LaunchDaemon();
    stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(daemon));
    char notice[200] = "";
    Check(recv(syslog, notice, sizeof notice - 1, MSG_DONTWAIT) > 0, "no syslog notice");
    close(syslog);
    // The priority, user and notice, stands before the time, which is not compared.
    EXPECT_EQ(std::string(notice).erase(4, strlen("Nov 22 10:00:00")),
              "<13> talp: Unable to start by user " + std::to_string(getuid()) +
                  ", because unable to load config, or unable to parse XML file!");

    CONFIG config;
    config.caePort = 1024;
    WriteConfig(config);
    daemon = stage.LaunchDaemon();
    stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    stage.log.Expect({"[INF] talp is started", "[ERR] CAE interface port number is less than 1025",
                      "[INF] talp is stopped with error"});
    EXPECT_FALSE(stage.log.Has("["));

    // A stale PID file is longer than what replaces it. A device's name too long for the listing is
    // read as two wrong ones.
    WriteFile("/dev/ttyUSB100", "");
    WriteFile(kPidFile, "99999999 stale\n");
    WriteConfig(CONFIG());
    daemon = stage.LaunchDaemon();
    stage.log.Expect(
        {"[INF] talp is started", "[INF] Initparam Autodiscover: TRUE",
         "[INF] Initparam Enablepoll: FALSE", "[INF] Initparam Speed (ThreadDelay): 2525",
         "[INF] CAE interface listening on port 5001", "[INF] IO interface listening on port 5002",
         "[INF] MON interface listening on port 5003"});
    stage.log.ExpectLine("[INF] CAE interface is waiting for incoming connection");
    stage.log.Expect({"[ERR] unable to  open /dev/ttyUSB10 for hardware communication",
                      "[ERR] unable to  open /dev/ for hardware communication"});
    unlink("/dev/ttyUSB100");
    stage.log.ExpectLine("[ERR] ttyUSB devices couldn't be found");

    // A second one takes over the PID file, and finds its ports taken.
    const pid_t second = stage.LaunchDaemon();
    stage.log.Expect({"[INF] talp is started", "[ERR] couldn't bind socket forCAE interface",
                      "[INF] CAE interface listening on port 5001",
                      "[ERR] couldn't bind socket forIO interface",
                      "[INF] IO interface listening on port 5002"});
    kill(second, SIGTERM);
    stage.Stop(second, SIGTERM);
    CLIENT io("IO");
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
  io->Send("aElCL\r\naElPAp0301tTail of the cat\r\n");
  bus->ExpectNext({"rx 04 10 0E 01 00", "lcd E clear", "tx 02 41 0E",
                   "rx 16 10 0E 13 09 03 01 54 61 69 6C 20 6F 66 20 74 68 65 20 63 61 74 00",
                   "lcd E text 3,1 \"Tail of the cat\"", "lcd E row 0 |                    |",
                   "lcd E row 1 |   Tail of the cat  |", "lcd E row 2 |                    |",
                   "lcd E row 3 |                    |", "tx 02 41 0E"});
}

TEST(EndToEnd, Bus) {
  Play([](STAGE& stage) {
    CARD_BUS* const bus = stage.AddBus(kAllCards);
    stage.Start();
    stage.log.Expect(HardwareFound(kBus));
    CLIENT cae("CAE");
    CLIENT io("IO");
    ExpectDiscovery(&cae, bus);
    DriveOutputs(&io, bus);

    // A monitor sees what is typed as it is typed, up to a NUL.
    CLIENT mon("MON");
    const auto bothExpect = [&mon](CLIENT* client, const std::string& line) {
      client->Expect(line + "\r\n\r");
      mon.Expect(line + "\r\n\r");
    };
    io.Send("EXIT");  // without its separator
    cae.Expect("COE:Illegal command -> EXIT\r\n\r>\r\n\r");
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
    CLIENT next("IO");
    bus->Type("set 8 0 2A");
    cae.Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
    bothExpect(&next, "a8b0d2A");
    EXPECT_FALSE(stage.log.Has("[ERR]"));
  });
}

TEST(EndToEnd, Link) {
  Play([](STAGE& stage) {
    // Of two adapters the first is silent.
    CONFIG polling;
    polling.poll = true;
    CARD_BUS* const silent = stage.AddBus({"--link", kBus, "--silent"});
    CARD_BUS* const bus = stage.AddBus(
        {"--link", "/dev/ttyUSB1", "--version-text", "2.07", "--frames", "--card=2=analog"});
    const LINES silentTried = {"[INF] try to catch hardware on /dev/ttyUSB0",
                               "[INF] comm timeout /dev/ttyUSB0"};
    stage.Start(polling);
    stage.log.Expect(silentTried);
    stage.log.Expect(HardwareFound("/dev/ttyUSB1"));
    bus->ExpectNext({"rx 03 40 6F 9A", "tx 05 40 32 2E 30 37", "rx 01 30",
                     "tx 11 31 00 00 07 00 00 00 00 00 00 00 00 00 00 00 00 00", "rx 03 20 02 06"});

    // Every reconnect discovers anew, and each discovery makes the poll frame longer.
    bus->Type("fault lost on poll");
    stage.log.ExpectLine("[INF] comm timeout /dev/ttyUSB1");
    stage.log.Expect(silentTried);
    stage.log.Expect(HardwareFound("/dev/ttyUSB1"));
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

// Byte for byte what a console's user sees.
void HoldSession(CLIENT* cae, CLIENT* io, CARD_BUS* bus) {
  cae->Send("DRVVER\r\n");
  cae->Expect("CIA: DRIVER VERSION 1.20\r\n\r>\r\n\r");
  cae->Send("drvver\r\n");
  cae->Expect("CIE: UNKNOWN COMMAND \r\n>\r\n\r");
  bus->Type("card 1 02\ncard 6 unknown");
  cae->Ask("ENABLEPOLL", {"CIA: GLOBAL POLLING IS ENABLED", ">"});
  cae->Send("FORCEDISCOVER\r\n");
  cae->Expect(
      "FORCED DISCOVER LIST:\r\n\rDTI:0x0:6 channel RC SERVO CONTROLLER\r\n\r"
      "DTI:0x1:UNIDENTIFIED\r\n\rDTI:0x2:EMPTY\r\n\rDTI:0x3:16 channel DIGITAL INPUT\r\n\r"
      "DTI:0x4:3 channel DC MOTOR CONTROLLER\r\n\rDTI:0x5:16 channel DIGITAL OUTPUT\r\n\r"
      "DTI:0x6:CARD?\r\n\rDTI:0x7:EMPTY\r\n\rDTI:0x8:KEYMX and ROTE CONTROLLER\r\n\r"
      "DTI:0x9:IR REMOTE CONTROLLER\r\n\rDTI:0xA:EMPTY\r\n\rDTI:0xB:EMPTY\r\n\r"
      "DTI:0xC:EMPTY\r\n\rDTI:0xD:EMPTY\r\n\rDTI:0xE:ALPHANUMERIC LCD CONTROLLER\r\n\r"
      "DTI:0xF:6 channel ANALOGUE INPUT\r\n\r>\r\n\r");
  bus->Type("set 3 0 40");
  io->Expect("a3b0d40\r\n\r");
  cae->Ask("DISABLEPOLL", {"CIA: GLOBAL POLLING IS DISABLED", ">"});
  cae->Ask("GETLASTINPST:3=0", {"CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">"});
  io->Expect("a3b0d40\r\n\r");
  cae->Ask("SPEED=75", {"CIA: SPEED IS SET to 75%", ">"});

  bus->Type("answer F 2A");
  cae->Ask("GETANMASK:F", {"CIA: MASK is GOT from card", "AMV:0xF:0x2A", ">"});
  bus->ExpectLine("rx 04 50 0F 40 01");
  bus->Type("fault notq");
  cae->Ask("SETMSR1:4=20", {"CIE: PARAM WRITE ERROR", ">"});
  bus->ExpectLine("rx 05 50 04 01 C1 20");
  bus->Type("fault lost on direct");
  cae->Ask("REBOOT:5", {"CIE: BUS WRITE ERROR", ">"});
  cae->Ask("EXIT", {"TALP: Bye Bye..."});
  cae->ExpectEnd();
}

TEST(EndToEnd, Console) {
  Play([](STAGE& stage) {
    unlink(kSleepStub);
    CARD_BUS* const bus = stage.AddBus(kAllCards);
    stage.Start();
    CLIENT io("IO");
    {
      CLIENT cae("CAE");
      ExpectDiscovery(&cae, bus);
      HoldSession(&cae, &io, bus);
    }
    stage.log.Expect({"[INF] comm timeout /dev/ttyUSB0",
                      "[INF] connection is closed by command on CAE interface",
                      "[INF] CAE interface listening on port 5001"});
    // The prompt of the last command waits for the next client, and so does what the IO client gets
    // wrong meanwhile. The banner comes behind both.
    io.Send("nonsense\r\na5b0d00\r\n");
    bus->ExpectLine("out 5 dout b0=00 b1=FF");
    CLIENT cae("CAE", ">\r\n\rCOE:Illegal command -> nonsense\r\n\r>\r\n\r");
    EXPECT_FALSE(stage.log.Has("[ERR]"));
  });
}

// Those above the standard ones would be inherited by an executed program.
void ExpectDescriptorsClosedOnExec(pid_t daemon) {
  int descriptors = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(daemon) + "/fdinfo")) {
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
      CLIENT cae("CAE");
      CLIENT io("IO");
      CLIENT mon("MON");
      ExpectDiscovery(&cae, bus);
      ExpectDescriptorsClosedOnExec(daemon);
      stage.Stop(daemon, SIGINT);
      for (CLIENT* const client : {&cae, &io, &mon}) client->ExpectEnd();
    }

    // An IO client that never reads holds up its own interface and nothing else: the first line,
    // with a separator larger than what the connection buffers, blocks the task in its write.
    for (const char* buffer : {"tcp_wmem", "tcp_rmem"}) {
      WriteFile(std::string("/proc/sys/net/ipv4/") + buffer, "4096 4096 4096");
    }
    CONFIG config;
    config.ioOutSeparator = std::string(1 << 18, '-');
    daemon = stage.Start(config);
    {
      CLIENT io("IO");
      CLIENT cae("CAE");
      ExpectDiscovery(&cae, bus);
      cae.Ask("GETLASTINPST:3=0", {"CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">"});
      cae.Ask("EXIT", {"TALP: Bye Bye..."});
      cae.ExpectEnd();
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
