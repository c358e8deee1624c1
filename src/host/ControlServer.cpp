#include "host/ControlServer.h"

namespace fodr::host {
namespace {

constexpr int kRequestTimeoutMS = 10000;
constexpr size_t kMaxVisitors = 32;

} // namespace

std::unique_ptr<ControlServer> ControlServer::Start(const std::string &path, Handler handler,
                                                    std::string *error)
{
    auto listener = platform::ListenLocal(path, error);
    if (!listener)
        return nullptr;
    return std::unique_ptr<ControlServer>(new ControlServer(std::move(listener), std::move(handler)));
}

ControlServer::ControlServer(std::unique_ptr<platform::StreamListener> listening, Handler handling)
    : listener(std::move(listening)), handler(std::move(handling)), acceptThread([this] { AcceptMain(); })
{}

ControlServer::~ControlServer()
{
    listener->Shutdown();
    acceptThread.join();
    std::list<Visitor> last;
    {
        const transport::MutexLock held(lock);
        last.swap(visitors);
        for (const Visitor &visitor : last) {
            if (!visitor.answering)
                visitor.stream->Shutdown();
        }
    }
    for (Visitor &visitor : last)
        visitor.thread.join();
}

void ControlServer::AcceptMain()
{
    while (auto stream = listener->Accept()) {
        if (!stream->PeerIsThisUser())
            continue;
        const transport::MutexLock held(lock);
        for (auto visitor = visitors.begin(); visitor != visitors.end();) {
            if (visitor->served)
                visitor->thread.join();
            visitor = visitor->served ? visitors.erase(visitor) : std::next(visitor);
        }
        if (visitors.size() >= kMaxVisitors)
            continue;
        Visitor &visitor = visitors.emplace_back();
        visitor.stream = std::move(stream);
        visitor.thread = std::thread([this, &visitor] { Serve(&visitor); });
    }
}

void ControlServer::Serve(Visitor *visitor)
{
    const auto request = ReceiveRequest(visitor->stream.get(), kRequestTimeoutMS);
    {
        const transport::MutexLock held(lock);
        visitor->answering = true;
    }
    if (request)
        SendReply(visitor->stream.get(), handler(*request));
    visitor->stream->Shutdown();
    const transport::MutexLock held(lock);
    visitor->served = true;
}

} // namespace fodr::host
