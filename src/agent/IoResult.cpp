#include "agent/IoResult.h"

#include "rdpdr/wire/RdpdrRecords.h"

namespace fodr::agent {
namespace {

const IoResult kMalformed = {.status = STATUS_INVALID_NETWORK_RESPONSE};

IoResult ReadData(ByteSpan packet, IoResult result, uint32_t limit, bool lengthIsWritten)
{
    if (packet.size() < kCompletionData)
        return kMalformed;
    const ByteSpan rest = packet.subspan(kCompletionData);
    const uint32_t stated = LoadRecord<DR_LENGTH_RSP>(&packet[kCompletionBody]).Length;
    const size_t length = stated == 0 && !lengthIsWritten ? rest.size() : stated;
    if (length > rest.size() || length > limit)
        return kMalformed;
    result.length = static_cast<uint32_t>(length);
    result.data = rest.first(length);
    return result;
}

} // namespace

IoResult ReadCompletion(ByteSpan packet, AnswerKind kind, uint32_t limit)
{
    if (packet.size() < kCompletionBody)
        return kMalformed;
    const auto completion = LoadRecord<DR_DEVICE_IOCOMPLETION>(&packet[kHeaderEnd]);
    IoResult result;
    result.status = nt::NtStatus(completion.IoStatus);
    // A failure says all with its status, whatever its body is; but a control that had more to tell than
    // there was room for told the beginning.
    if (result.Failed() && !(kind == AnswerKind::Control && result.status == nt::STATUS_BUFFER_OVERFLOW))
        return result;
    switch (kind) {
    case AnswerKind::Create: {
        if (packet.size() < kWireEnd<DR_CREATE_RSP>)
            return kMalformed;
        const auto created = LoadRecord<DR_CREATE_RSP>(&packet[kCompletionBody]);
        result.fileId = created.FileId;
        result.information = created.Information;
        result.preRead = packet.subspan(kPreReadBlock);
        return result;
    }
    case AnswerKind::Length:
        if (packet.size() < kCompletionData)
            return kMalformed;
        result.length = LoadRecord<DR_LENGTH_RSP>(&packet[kCompletionBody]).Length;
        return result.length <= limit ? result : kMalformed;
    case AnswerKind::Data:
        return ReadData(packet, result, limit, true);
    case AnswerKind::Control:
        // An answer without data has a byte of padding, which can't be told from one byte of data.
        if (packet.size() == kMinCompletionSize && limit < 1)
            return result;
        return ReadData(packet, result, limit, false);
    case AnswerKind::Status:
        if (packet.size() > kPreReadBlock)
            result.preRead = packet.subspan(kPreReadBlock);
        return result;
    }
    return kMalformed;
}

} // namespace fodr::agent
