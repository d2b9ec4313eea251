#include "ioc/protobuf/EventActions.h"

#include "ioc/protobuf/DataFormatterException.h"

namespace vantor::ioc::internal::protobuf
{

pb::EventAction EventActions::ActionOf(edr::EventType type)
{
    switch (type)
    {
    case edr::EventType::Create:
        return pb::CREATE;
    case edr::EventType::Delete:
        return pb::DELETE;
    case edr::EventType::Read:
        return pb::READ;
    case edr::EventType::Write:
        return pb::WRITE;
    case edr::EventType::Rename:
        return pb::RENAME;
    case edr::EventType::Attribute:
        return pb::CHANGE;
    case edr::EventType::Running:
    case edr::EventType::Clone:
        return pb::RUNNING;
    case edr::EventType::Exit:
    case edr::EventType::AbnormalEnd:
        return pb::TERMINATED;
    case edr::EventType::Connect:
    case edr::EventType::Accept:
        return pb::ESTABLISHED;
    case edr::EventType::Bind:
        return pb::LISTEN;
    }
    throw DataFormatterException("Cannot convert unsupported action to protobuf");
}

const char* EventActions::Text(pb::EventAction action)
{
    switch (action)
    {
    case pb::CREATE:
        return "CREATE";
    case pb::DELETE:
        return "DELETE";
    case pb::WRITE:
        return "WRITE";
    case pb::RENAME:
        return "RENAME";
    case pb::CHANGE:
        return "CHANGE";
    case pb::RUNNING:
        return "RUNNING";
    case pb::TERMINATED:
        return "TERMINATED";
    case pb::LISTEN:
        return "LISTEN";
    case pb::ESTABLISHED:
        return "ESTABLISHED";
    case pb::CLOSED:
        return "CLOSED";
    case pb::LOAD:
        return "LOAD";
    case pb::UNLOAD:
        return "UNLOAD";
    default:
        return "NONE";
    }
}

} // namespace vantor::ioc::internal::protobuf
