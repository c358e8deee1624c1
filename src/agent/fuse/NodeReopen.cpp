#include "agent/fuse/NodeReopen.h"

#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

namespace fodr::agent {
namespace {

class NodeReopen final : public IReopen {
public:
    NodeReopen(const NodeTable &nodeTable, NodePtr openNode) : table(nodeTable), node(std::move(openNode)) {}

    void NoteId(uint64_t fileId) { id = fileId; }

    bool Place(std::u16string *path) override
    {
        NodeTable::Place place;
        if (!table.PlaceOf(node, &place))
            return false;
        *path = std::move(place.path);
        return true;
    }
    uint64_t ExpectedId() override { return id; }
    // Times may be this machine's guess; what was there in the file should still be.
    bool MayBe(const FileFacts &facts) override
    {
        FileFacts last;
        return facts.IsDirectory() == node->directory &&
               (!node->LastFacts(&last) || facts.endOfFile >= last.endOfFile);
    }

private:
    const NodeTable &table;
    const NodePtr node;
    std::atomic<uint64_t> id{0};
};

} // namespace

void RememberNode(RemoteShare &share, uint32_t fileId, const NodeTable &table, const NodePtr &node)
{
    if (!share.OutlivesConnections())
        return;
    auto reopen = std::make_shared<NodeReopen>(table, node);
    share.Remember(fileId, reopen);
    share.QueryInformation(fileId, nt::FileInternalInformation, [reopen](const IoResult &result) {
        if (!result.Failed() && result.data.size() >= sizeof(uint64_t))
            reopen->NoteId(LoadLittle<uint64_t>(result.data.data()));
    });
}

} // namespace fodr::agent
