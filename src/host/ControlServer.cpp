#include "host/ControlServer.h"

#include <system_error>

namespace fodr::host {
namespace {

constexpr int kRequestTimeoutMS = 10000;

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
    EndWaiting();
    acceptThread.join();
    EndWaiting(); // who came last
    std::list<Visitor> last;
    {
        const MutexLock held(lock);
        last.swap(visitors);
    }
    for (Visitor &visitor : last) {
        if (visitor.thread.joinable())
            visitor.thread.join();
    }
}

// Visitors whose request hasn't come yet.
void ControlServer::EndWaiting()
{
    const MutexLock held(lock);
    for (const Visitor &visitor : visitors) {
        if (!visitor.answering)
            visitor.stream->Shutdown();
    }
}

void ControlServer::AcceptMain()
{
    while (auto stream = listener->Accept()) {
        if (!stream->PeerIsThisUser())
            continue;
        Visitor *const visitor = LetIn(std::move(stream));
        // A host that is short of threads still answers, one visitor after the other.
        if (visitor && !visitor->thread.joinable())
            Serve(visitor);
    }
}

ControlServer::Visitor *ControlServer::LetIn(std::unique_ptr<platform::ByteStream> stream)
{
    const MutexLock held(lock);
    for (auto visitor = visitors.begin(); visitor != visitors.end();) {
        if (visitor->served && visitor->thread.joinable())
            visitor->thread.join();
        visitor = visitor->served ? visitors.erase(visitor) : std::next(visitor);
    }
    if (visitors.size() >= kMaxVisitors)
        return nullptr;
    Visitor &visitor = visitors.emplace_back();
    visitor.stream = std::move(stream);
    try {
        visitor.thread = std::thread([this, &visitor] { Serve(&visitor); });
    } catch (const std::system_error &) {
    }
    return &visitor;
}

void ControlServer::Serve(Visitor *visitor)
{
    const auto request = ReceiveRequest(visitor->stream.get(), kRequestTimeoutMS);
    {
        const MutexLock held(lock);
        visitor->answering = true;
    }
    if (request)
        SendReply(visitor->stream.get(), handler(*request));
    visitor->stream->Shutdown();
    const MutexLock held(lock);
    visitor->served = true;
}

} // namespace fodr::host
