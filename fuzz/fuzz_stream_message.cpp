// Feeds arbitrary bytes to the stream client's message handling, as a hostile or
// broken server could send them.
#include "dictation/TranscriptionService.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

namespace {

class SinkDelegate : public QObject, public TranscriptionDelegate
{
public:
    void transcriptionDidReceivePartial(const QString& text) override { m_length += text.size(); }
    void transcriptionDidReceiveFinal(const QString& text) override { m_length += text.size(); }
    void transcriptionDidEnd() override { }
    void transcriptionDidFail(const QString& message, const QString& code) override
    {
        m_length += message.size() + code.size();
    }

private:
    qsizetype m_length = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static SinkDelegate delegate;
    TranscriptionService service;
    service.setDelegate(&delegate);
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    service.handleMessage(bytes);
    // Once an error was seen, it stays seen; a response is never forgotten.
    const bool sawError = service.sawError();
    service.handleMessage(bytes);
    if (sawError && !service.sawError())
        __builtin_trap();
    if (sawError && !service.gotAnyResponse())
        __builtin_trap();
    return 0;
}
