// A pretend host: three components on their own threads share the host's security state through the
// CyberSecurity contract, and the program prints who received what, on which thread.
//
//   audit     installs the user-activity logger hook and the connection callback, and logs the
//             secured flag and credential notices it is told about;
//   network   listens to the allowance of some (address, port) pairs and to the security token, checks
//             incoming clients with isIpSecured() and registers each connection;
//   security  allows and denies addresses, marks the system secured, sets, rotates and clears the
//             token, and announces new credentials.
//
// Every callback runs synchronously on the thread of the call that caused it, which the timeline shows.

#include <cstdio>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vantor/messaging/contract_cyber_security.hpp"

using vantor::messaging::CyberSecurityContract;

// The host's user-activity logger; the library only hands out references to it.
class Logger {
 public:
  void record(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
  }
  std::size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;  // guarded by mutex_
};

namespace {

using Endpoints = std::vector<std::pair<std::string, int>>;

thread_local const char* threadName = "main";
std::mutex printMutex;

// One timeline line: the thread it happened on, the component that reacted, and what it did.
void say(const char* component, const std::string& what) {
  std::lock_guard<std::mutex> lock(printMutex);
  std::printf("  [%-8s thread] %-8s %s\n", threadName, component, what.c_str());
}

std::string hex(const CyberSecurityContract::Token& token) {
  char text[12];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x..", token[0], token[1], token[2], token[3]);
  return text;
}

// Runs `body` on a new thread named `name` and waits for it, so the timeline reads in order while each
// component still acts from a thread of its own.
template <typename Body>
void onThread(const char* name, Body body) {
  std::async(std::launch::async, [name, &body] {
    threadName = name;
    body();
  }).get();
}

}  // namespace

int main() {
  CyberSecurityContract& security = CyberSecurityContract::instance();
  Logger auditLog;
  std::printf("Timeline: [thread the code ran on] component that acted, and what it did\n");

  onThread("audit", [&] {
    security.setUserActivityLogger([&auditLog]() -> Logger& { return auditLog; });
    security.setRegisterConnectionCallback([&security](const std::string& address, int port, bool allowed) {
      const std::string entry = address + ":" + std::to_string(port) + (allowed ? " accepted" : " refused");
      security.userActivityLogger().record("connection " + entry);
      say("audit", "logged connection " + entry);
    });
    security.connectSecuredSignal([&security](bool secured) {
      security.userActivityLogger().record(secured ? "system secured" : "system unsecured");
      say("audit", std::string("logged: system ") + (secured ? "secured" : "unsecured"));
    });
    security.connectNewCredentialsSignal([&security](bool) {
      security.userActivityLogger().record("new credentials were set");
      say("audit", "logged: new credentials were set");
    });
    say("audit", "installed the logger hook, the connection callback and two signal callbacks");
  });

  onThread("network", [&] {
    for (const auto& [address, port] : Endpoints{{"198.51.100.4", 17161}, {"203.0.113.9", 17161}}) {
      const std::string pair = address + ":" + std::to_string(port);
      security.subscribeToIpPortAllowed(address, port, [pair](bool allowed) {
        say("network", pair + (allowed ? " may connect" : " may not connect"));
      });
    }
    security.connectSecurityTokenSignal([&security](boost::optional<CyberSecurityContract::Token> token) {
      say("network", "session keys now derive from token " + hex(*token) +
                         (security.getSecurityToken() ? "" : " (token cleared)"));
    });
    say("network", "listening to two address/port pairs and to the security token");
  });

  onThread("security", [&] {
    say("security", "allowing 198.51.100.4 and denying 203.0.113.9 on every system port");
    security.updateIpAllPortsAllowed("198.51.100.4", true);
    security.updateIpAllPortsAllowed("203.0.113.9", false);
    say("security", "marking the system secured");
    security.updateSecured(true);
    CyberSecurityContract::Token token{};
    for (std::size_t i = 0; i < token.size(); ++i) token[i] = static_cast<unsigned char>(0xa0 + i);
    say("security", "setting the security token");
    security.updateSecurityToken(token);
    say("security", "announcing new credentials");
    security.updateAboutNewCreds();
  });

  onThread("network", [&] {
    for (const auto& [address, port] :
         Endpoints{{"198.51.100.4", 17161}, {"203.0.113.9", 17161}, {"192.0.2.50", 17168}}) {
      const bool allowed = security.isIpSecured(address);
      say("network", "client " + address + (allowed ? " passes" : " fails") + " the address check");
      security.registerConnection(address, port, allowed);
    }
  });

  onThread("security", [&] {
    CyberSecurityContract::Token rotated = *security.getSecurityToken();
    for (auto& byte : rotated) byte = static_cast<unsigned char>(byte ^ 0x5a);
    say("security", "rotating the security token");
    security.updateSecurityToken(rotated);
    say("security", "clearing the security token");
    security.updateSecurityToken(boost::none);
  });

  say("host", "the audit log holds " + std::to_string(auditLog.size()) + " entries");
  return 0;
}
