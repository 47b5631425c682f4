#pragma once

// The vtable of com.orvane.KALActionRequesting: every method of the contract,
// in its order, bound to the request that answers it (service/requests.h or
// the KALSpokesman itself, whose address is the vtable's userdata).

#include <systemd/sd-bus.h>

#include <string_view>

const sd_bus_vtable* action_requesting_vtable();

// True when `member` is a method of the protocol; the connection filter lets
// everything else (introspection, Peer, Properties) through.
bool is_action_requesting_method(std::string_view member);
