#pragma once

// Who is registered and who wants what: the server's bookkeeping of client
// objects. A client object ("proxy") is the pair (unique bus name of its
// connection, object path it exported); the connection's unique name plays
// the part of its connection hash.
//
// Thread-aware, not thread-safe: the main thread alone uses it, so it needs
// no lock (client requests, deliveries and pings all run there).

#include <map>
#include <set>
#include <string>
#include <vector>

namespace kal {

struct Proxy {
    std::string sender;  // ":1.42"
    std::string path;    // "/com/example/Listener"

    // How logs name it: ":1.42/com/example/Listener".
    std::string describe() const { return sender + path; }
    auto operator<=>(const Proxy&) const = default;
};

class ClientRegistry {
  public:
    // Authenticates the proxy's connection and adds the proxy to the primary
    // or secondary list. A second registration adds it again.
    void registerProxy(const Proxy& proxy, bool secondary);
    bool isAuthenticated(const std::string& sender) const;
    // Adds a subscription (duplicates allowed); true when the name is new.
    bool subscribe(const Proxy& proxy, const std::string& name);
    // Removes every occurrence of the proxy from the lists and subscriptions
    // (the subscription arrays stay, even empty) and every authentication
    // whose proxy it is.
    void unregister(const Proxy& proxy);
    // The proxy registered for a connection, if any.
    const Proxy* proxyForConnection(const std::string& sender) const;

    // Forgets the connection's authentication and marks it cancelled: its
    // proxies are dead until the connection registers again.
    void cancelConnection(const std::string& sender);
    bool isCancelled(const std::string& sender) const;

    const std::vector<Proxy>& subscribers(const std::string& name) const;
    bool isSubscribed(const Proxy& proxy, const std::string& name) const;
    const std::vector<Proxy>& primaryDistants() const { return primary_; }
    const std::vector<Proxy>& secondaryDistants() const { return secondary_; }

    // "\t<name>: (<proxy>, <proxy>)\n" per subscribed name.
    std::string subscriptionDescription() const;
    // "{<connection> = <proxy>; ...}".
    std::string registrationDescription() const;

  private:
    std::vector<Proxy> primary_;
    std::vector<Proxy> secondary_;
    std::map<std::string, Proxy> authenticated_;  // connection -> proxy it registered
    std::map<std::string, std::vector<Proxy>> subscriptions_;
    std::set<std::string> cancelled_;  // connections that asked to be unregistered
};

}  // namespace kal
