#include "service/client_registry.h"

#include <algorithm>

namespace kal {

void ClientRegistry::registerProxy(const Proxy& proxy, bool secondary) {
    authenticated_[proxy.sender] = proxy;
    cancelled_.erase(proxy.sender);
    (secondary ? secondary_ : primary_).push_back(proxy);
}

bool ClientRegistry::isAuthenticated(const std::string& sender) const {
    return authenticated_.contains(sender);
}

bool ClientRegistry::subscribe(const Proxy& proxy, const std::string& name) {
    auto [it, created] = subscriptions_.try_emplace(name);
    it->second.push_back(proxy);
    return created;
}

void ClientRegistry::unregister(const Proxy& proxy) {
    std::erase(primary_, proxy);
    std::erase(secondary_, proxy);
    for (auto& [name, list] : subscriptions_)
        std::erase(list, proxy);
    std::erase_if(authenticated_, [&](const auto& entry) { return entry.second == proxy; });
}

const Proxy* ClientRegistry::proxyForConnection(const std::string& sender) const {
    auto it = authenticated_.find(sender);
    return it == authenticated_.end() ? nullptr : &it->second;
}

void ClientRegistry::cancelConnection(const std::string& sender) {
    authenticated_.erase(sender);
    cancelled_.insert(sender);
}

bool ClientRegistry::isCancelled(const std::string& sender) const {
    return cancelled_.contains(sender);
}

const std::vector<Proxy>& ClientRegistry::subscribers(const std::string& name) const {
    static const std::vector<Proxy> none;
    auto it = subscriptions_.find(name);
    return it == subscriptions_.end() ? none : it->second;
}

bool ClientRegistry::isSubscribed(const Proxy& proxy, const std::string& name) const {
    const auto& list = subscribers(name);
    return std::find(list.begin(), list.end(), proxy) != list.end();
}

std::string ClientRegistry::subscriptionDescription() const {
    std::string out;
    for (const auto& [name, list] : subscriptions_) {
        out += "\t" + name + ": (";
        for (size_t i = 0; i < list.size(); ++i)
            out += (i ? ", " : "") + list[i].describe();
        out += ")\n";
    }
    return out;
}

std::string ClientRegistry::registrationDescription() const {
    std::string out = "{";
    bool first = true;
    for (const auto& [sender, proxy] : authenticated_) {
        out += (first ? "" : "; ") + sender + " = " + proxy.describe();
        first = false;
    }
    return out + "}";
}

}  // namespace kal
