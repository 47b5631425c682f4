#pragma once

// Typed D-Bus methods. A request is an ordinary function (or a member of the
// server object) whose first parameter is the Caller and whose other
// parameters and result are the contract's types; serve<&fn> reads the
// arguments, runs it inside the exception guard and sends the reply, and
// Method<&fn> derives the in and out signatures from the same types, so the
// vtable cannot disagree with the code.
//
//   C++ type               D-Bus
//   std::string            s
//   OptString              s ("" is nil)
//   int32_t / uint32_t     i / u
//   bool                   b
//   StringList             as
//   ValueDict              a{sv} (optional<ValueDict> as a result: nullopt -> {})
//   Value                  v
//   ObjectPath             o

#include <systemd/sd-bus.h>

#include <array>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "service/bus_errors.h"
#include "service/bus_values.h"
#include "service/requests.h"
#include "service/sd_bus_handles.h"

namespace kal::bus {

template <typename T>
struct Arg;

template <>
struct Arg<std::string> {
    static constexpr std::string_view sig = "s";
    static int read(sd_bus_message* m, std::string& out);
    static int append(sd_bus_message* m, const std::string& v);
};
template <>
struct Arg<OptString> {
    static constexpr std::string_view sig = "s";
    static int read(sd_bus_message* m, OptString& out);
};
template <>
struct Arg<int32_t> {
    static constexpr std::string_view sig = "i";
    static int read(sd_bus_message* m, int32_t& out);
    static int append(sd_bus_message* m, int32_t v);
};
template <>
struct Arg<uint32_t> {
    static constexpr std::string_view sig = "u";
    static int read(sd_bus_message* m, uint32_t& out);
};
template <>
struct Arg<bool> {
    static constexpr std::string_view sig = "b";
    static int read(sd_bus_message* m, bool& out);
};
template <>
struct Arg<StringList> {
    static constexpr std::string_view sig = "as";
    static int read(sd_bus_message* m, StringList& out);
    static int append(sd_bus_message* m, const StringList& v);
};
template <>
struct Arg<ValueDict> {
    static constexpr std::string_view sig = "a{sv}";
    static int read(sd_bus_message* m, ValueDict& out);
};
template <>
struct Arg<std::optional<ValueDict>> {
    static constexpr std::string_view sig = "a{sv}";
    static int append(sd_bus_message* m, const std::optional<ValueDict>& v);
};
template <>
struct Arg<Value> {
    static constexpr std::string_view sig = "v";
    static int read(sd_bus_message* m, Value& out);
};
template <>
struct Arg<ObjectPath> {
    static constexpr std::string_view sig = "o";
    static int read(sd_bus_message* m, ObjectPath& out);
};

// The concatenated signatures of Ts, NUL-terminated, at compile time.
template <typename... Ts>
struct Signature {
    static constexpr auto make() {
        std::array<char, (Arg<Ts>::sig.size() + ... + 0) + 1> out{};
        [[maybe_unused]] size_t at = 0;
        ((std::copy(Arg<Ts>::sig.begin(), Arg<Ts>::sig.end(), out.begin() + at),
          at += Arg<Ts>::sig.size()),
         ...);
        return out;
    }
    static constexpr auto value = make();
};

template <typename F>
struct Method;

template <typename R, typename... A>
struct Method<R (*)(const Caller&, A...)> {
    using Result = R;
    using Args = std::tuple<std::remove_cvref_t<A>...>;
    using Object = void;
    static constexpr auto in = Signature<std::remove_cvref_t<A>...>::value;
};

template <typename C, typename R, typename... A>
struct Method<R (C::*)(const Caller&, A...)> {
    using Result = R;
    using Args = std::tuple<std::remove_cvref_t<A>...>;
    using Object = C;
    static constexpr auto in = Signature<std::remove_cvref_t<A>...>::value;
};

template <typename R>
inline constexpr auto result_signature = Signature<R>::value;
template <>
inline constexpr std::array<char, 1> result_signature<void> = {'\0'};

template <auto Fn>
inline constexpr const char* in_signature = Method<decltype(Fn)>::in.data();
template <auto Fn>
inline constexpr const char* out_signature =
    result_signature<typename Method<decltype(Fn)>::Result>.data();

// The calling connection's unique name ("" on a direct connection).
std::string message_sender(sd_bus_message* m);

template <typename T>
int reply_with(sd_bus_message* call, const T& result) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(call, &raw);
    if (r < 0)
        return r;
    MessagePtr reply(raw);
    if ((r = Arg<T>::append(reply.get(), result)) < 0)
        return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
}

template <typename Tuple, size_t... I>
int read_args([[maybe_unused]] sd_bus_message* m, [[maybe_unused]] Tuple& args,
              std::index_sequence<I...>) {
    int r = 0;
    // A comma fold runs left to right: arguments are read in order.
    ((r = r < 0 ? r : Arg<std::tuple_element_t<I, Tuple>>::read(m, std::get<I>(args))), ...);
    return r;
}

// The sd-bus method handler of request Fn.
template <auto Fn>
int serve(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    using M = Method<decltype(Fn)>;
    using Result = typename M::Result;
    typename M::Args args;
    int r = read_args(m, args, std::make_index_sequence<std::tuple_size_v<typename M::Args>>{});
    if (r < 0)
        return sd_bus_error_set_errnof(error, -r, "Couldn't read the arguments: %m");
    try {
        const Caller caller{message_sender(m)};
        auto run = [&]() -> Result {
            return std::apply(
                [&](auto&... a) -> Result {
                    if constexpr (std::is_void_v<typename M::Object>)
                        return Fn(caller, a...);
                    else
                        return (static_cast<typename M::Object*>(userdata)->*Fn)(caller, a...);
                },
                args);
        };
        if constexpr (std::is_void_v<Result>) {
            run();
            return sd_bus_reply_method_return(m, nullptr);
        } else {
            return reply_with(m, run());
        }
    } catch (const KALException& e) {
        return reply_exception(m, e);
    } catch (const std::exception& e) {
        log_uncaught(e);
        return sd_bus_reply_method_errorf(m, SD_BUS_ERROR_FAILED, "%s",
                                          as_bus_text(e.what()).c_str());
    } catch (...) {
        log_uncaught_unknown();
        return sd_bus_reply_method_errorf(m, SD_BUS_ERROR_FAILED, "Internal error");
    }
}

}  // namespace kal::bus

// One vtable line: member name, request, and the argument names of the
// contract written with SD_BUS_PARAM.
#define KAL_BUS_METHOD(member, fn, in_names, out_names)                                       \
    SD_BUS_METHOD_WITH_NAMES(member, ::kal::bus::in_signature<fn>, in_names,                  \
                             ::kal::bus::out_signature<fn>, out_names, ::kal::bus::serve<fn>, \
                             SD_BUS_VTABLE_UNPRIVILEGED)
