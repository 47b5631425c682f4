#pragma once

// The names of the D-Bus contract (data/dbus/com.orvane.devicemaster.xml),
// shared by the server, the client library and kalctl. No sd-bus here.

// The daemon's object and the interface it serves there.
inline constexpr const char kal_BusObjectPath[] = "/com/orvane/DeviceMaster";
inline constexpr const char kal_ActionRequestingInterface[] = "com.orvane.KALActionRequesting";
// Implemented by each client at the object path it registers as its delegate.
inline constexpr const char kal_EventReceivingInterface[] = "com.orvane.KALEventReceiving";
// The error reply that carries a KALException; its message is the reason.
inline constexpr const char kal_ExceptionErrorName[] = "com.orvane.KALException";

// The protocol versions the daemon accepts, as one text: a client's version
// must equal one of its blank-separated words.
inline constexpr const char kal_AcceptedProtocolVersions[] = "QZ4.0.5 BD1.0.7";

// The object path a client passes for "no delegate".
inline constexpr const char kal_NilObjectPath[] = "/";
