#pragma once

#include "edr/Event.h"
#include "ioc/protobuf/IocEvents.pb.h"

namespace vantor::ioc::internal::protobuf
{

namespace pb = ::com::corvid::ioc::model::proto::event;

// The EventAction of a captured event and the action texts of logs and the
// snapshot.
//
// Mapping: Create -> CREATE, Delete -> DELETE, Read -> READ, Write -> WRITE,
// Rename -> RENAME, Attribute -> CHANGE (a change of the file's metadata),
// Running and Clone -> RUNNING (a clone is a new running process),
// Exit and AbnormalEnd -> TERMINATED, Connect and Accept -> ESTABLISHED
// (an outbound or inbound connection that now stands), Bind -> LISTEN (a
// local address taken for serving; listen() itself is not captured).
//
// Stateless; callable from any thread.
class EventActions
{
public:
    // Throws DataFormatterException "Cannot convert unsupported action to
    // protobuf" for a type outside the mapping.
    static pb::EventAction ActionOf(edr::EventType type);

    // "CREATE", "DELETE", "WRITE", "RENAME", "CHANGE", "RUNNING",
    // "TERMINATED", "LISTEN", "ESTABLISHED", "CLOSED", "LOAD", "UNLOAD";
    // "NONE" for every other value (READ included).
    static const char* Text(pb::EventAction action);
};

} // namespace vantor::ioc::internal::protobuf
