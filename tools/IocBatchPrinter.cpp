#include "tools/IocBatchPrinter.h"

#include <sstream>

namespace vantor::tools
{

namespace
{

namespace pb = ::com::corvid::ioc::model::proto::event;

template <typename Message>
std::ostringstream Head(const char* kind, const Message& message)
{
    std::ostringstream line;
    line << kind << " " << pb::EventAction_Name(message.eventaction()) << " pid "
         << message.actor().processid() << " (" << message.actor().imagepath() << ")";
    return line;
}

std::string WithMeta(std::ostringstream line, const std::string& meta)
{
    if (!meta.empty())
    {
        line << " meta " << meta;
    }
    return line.str();
}

} // namespace

std::vector<std::string> IocBatchPrinter::Describe(const pb::IoCEvent& batch)
{
    std::vector<std::string> lines;
    const auto& agent = batch.agent();
    std::ostringstream head;
    head << "batch " << batch.sequenceno() << " agent " << agent.agentid() << " customer "
         << agent.customerid() << " boot " << agent.boottime() << " quarantined " << agent.isquarantine()
         << " events "
         << batch.directoryevent_size() + batch.fileevent_size() + batch.processevent_size() +
                batch.networkevent_size() + batch.loadedmodule_size();
    lines.push_back(head.str());
    for (const auto& event : batch.directoryevent())
    {
        auto line = Head("directoryEvent", event);
        line << " " << event.path();
        lines.push_back(line.str());
    }
    for (const auto& event : batch.fileevent())
    {
        auto line = Head("fileEvent", event);
        line << " " << event.fullpath();
        if (!event.oldpath().empty())
        {
            line << " from " << event.oldpath();
        }
        line << " type " << event.type();
        if (!event.sha256().empty())
        {
            line << " sha256 " << event.sha256();
        }
        lines.push_back(WithMeta(std::move(line), event.agentmetadata()));
    }
    for (const auto& event : batch.processevent())
    {
        auto line = Head("processEvent", event);
        line << " " << event.imagepath() << " [" << event.arguments() << "] parent "
             << event.parentprocessid();
        lines.push_back(WithMeta(std::move(line), event.agentmetadata()));
    }
    for (const auto& event : batch.networkevent())
    {
        auto line = Head("networkEvent", event);
        if (event.eventaction() == pb::LISTEN)
        {
            line << " local " << event.localaddress() << ":" << event.localport();
        }
        else
        {
            line << " remote " << event.remoteaddress() << ":" << event.remoteport();
        }
        lines.push_back(WithMeta(std::move(line), event.agentmetadata()));
    }
    for (const auto& event : batch.loadedmodule())
    {
        auto line = Head("loadedModule", event);
        line << " " << event.modulename();
        lines.push_back(line.str());
    }
    return lines;
}

} // namespace vantor::tools
