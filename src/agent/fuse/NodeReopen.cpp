#include "agent/fuse/NodeReopen.h"

#include "platform/NtRecords.h"
#include "rdpdr/wire/WireLayout.h"

namespace fodr::agent {
namespace {

class NodeReopen final : public IReopen {
public:
    NodeReopen(NodeTable &nodeTable, NodePtr openNode) : table(nodeTable), node(std::move(openNode)) {}

    bool Place(std::u16string *path) override
    {
        NodeTable::Place place;
        if (!table.PlaceOf(node, &place))
            return false;
        *path = std::move(place.path);
        return true;
    }
    uint64_t ExpectedId() override { return table.FileIdOf(node); }
    // Times may be this machine's guess; what was there in the file should still be.
    bool MayBe(const FileFacts &facts) override
    {
        FileFacts last;
        return facts.IsDirectory() == node->directory &&
               (!node->LastFacts(&last) || facts.endOfFile >= last.endOfFile);
    }

private:
    NodeTable &table;
    const NodePtr node;
};

} // namespace

void RememberNode(RemoteShare &share, uint32_t fileId, NodeTable &table, const NodePtr &node, bool isNew)
{
    if (!share.OutlivesConnections())
        return;
    share.Remember(fileId, std::make_shared<NodeReopen>(table, node));
    if (!isNew && share.HasIds())
        return; // who opens it learns its id
    share.QueryInformation(fileId, nt::FileInternalInformation, [&table, node](const IoResult &result) {
        if (!result.Failed() && result.data.size() >= sizeof(uint64_t) && table.FileIdOf(node) == 0)
            table.SetFileId(node, LoadLittle<uint64_t>(result.data.data()));
    });
}

} // namespace fodr::agent
