#include "PocketSphinxEngine.h"

#include "SerialQueue.h"

#include <QFileInfo>
#include <QObject>
#include <QPointer>

#include <pocketsphinx.h>
#include <sphinxbase/cmn.h>
#include <sphinxbase/err.h>
#include <sphinxbase/feat.h>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

// The saved starting mean is kept as floats in the header, which does not include sphinxbase.
static_assert(std::is_same_v<mfcc_t, float>, "sphinxbase built with fixed-point features");

namespace {

constexpr int sampleRate = 16000;
// How much new speech is decoded between two looks at the provisional text; partials
// therefore come at least this often while the words change.
constexpr qint64 partialEverySamples = sampleRate / 10;
// The decoder's voice-activity detector works on whole frames; pieces of this size keep
// its view of pauses as fine as the reference command-line decoder's.
constexpr qsizetype pieceSamples = 2048;

// Delivers results to the sink on its own thread. The stream detaches it on destruction;
// results posted before that are dropped when they arrive.
class SinkRelay
{
public:
    SinkRelay(QObject* context, SpeechSink* sink)
        : m_context(context)
        , m_sink(sink)
    { }

    template <typename F> void post(F&& call)
    {
        const std::lock_guard lock(m_mutex);
        if (!m_context)
            return;
        QMetaObject::invokeMethod(
            m_context,
            [relay = m_self.lock(), call = std::forward<F>(call)] {
                if (relay && relay->attached())
                    call(relay->m_sink);
            },
            Qt::QueuedConnection);
    }

    // Runs on the sink's thread, like the calls above.
    bool attached()
    {
        const std::lock_guard lock(m_mutex);
        return m_context != nullptr;
    }

    void detach()
    {
        const std::lock_guard lock(m_mutex);
        m_context = nullptr;
    }

    static std::shared_ptr<SinkRelay> make(QObject* context, SpeechSink* sink)
    {
        auto relay = std::make_shared<SinkRelay>(context, sink);
        relay->m_self = relay;
        return relay;
    }

private:
    std::mutex m_mutex;
    QObject* m_context;
    SpeechSink* m_sink;
    std::weak_ptr<SinkRelay> m_self;
};

// Everything one stream's decoding needs; touched only by jobs of that stream's queue.
struct DecodeState {
    PocketSphinxEngine* engine = nullptr;
    std::shared_ptr<SinkRelay> relay;
    ps_decoder_t* decoder = nullptr;
    bool failed = false;
    bool finished = false;
    bool inUtterance = false; // ps_start_utt() called and not yet ended
    bool speechStarted = false;
    qint64 samplesSinceLook = 0;
    QString lastPartial;

    ~DecodeState() { giveBack(); }

    bool ensureDecoder()
    {
        if (decoder || failed)
            return decoder != nullptr;
        QString error;
        decoder = engine->acquire(&error);
        if (!decoder) {
            failed = true;
            relay->post([error](SpeechSink* sink) { sink->speechFailed(error); });
            return false;
        }
        return startUtterance();
    }

    bool startUtterance()
    {
        if (ps_start_utt(decoder) < 0) {
            failed = true;
            relay->post([](SpeechSink* sink) { sink->speechFailed(u"the decoder could not start"_s); });
            return false;
        }
        inUtterance = true;
        speechStarted = false;
        samplesSinceLook = 0;
        lastPartial.clear();
        return true;
    }

    QString hypothesis() const
    {
        const char* hyp = ps_get_hyp(decoder, nullptr);
        return hyp ? QString::fromUtf8(hyp).trimmed() : QString();
    }

    // Ends the current segment and reports its words, if it had any.
    void endSegment()
    {
        ps_end_utt(decoder);
        inUtterance = false;
        const QString text = hypothesis();
        if (!text.isEmpty())
            relay->post([text](SpeechSink* sink) { sink->speechFinal(text); });
    }

    void process(const QByteArray& pcm)
    {
        if (finished || !ensureDecoder())
            return;
        const auto* samples = reinterpret_cast<const int16*>(pcm.constData());
        const qsizetype count = pcm.size() / 2;
        for (qsizetype at = 0; at < count; at += pieceSamples) {
            const qsizetype n = std::min(pieceSamples, count - at);
            if (ps_process_raw(decoder, samples + at, size_t(n), FALSE, FALSE) < 0) {
                failed = true;
                relay->post([](SpeechSink* sink) { sink->speechFailed(u"the decoder rejected audio"_s); });
                return;
            }
            const bool inSpeech = ps_get_in_speech(decoder);
            if (inSpeech && !speechStarted) {
                speechStarted = true;
                samplesSinceLook = 0;
            }
            if (!inSpeech && speechStarted) {
                // A pause: the segment is over.
                endSegment();
                if (!startUtterance())
                    return;
                continue;
            }
            if (speechStarted) {
                samplesSinceLook += n;
                if (samplesSinceLook >= partialEverySamples) {
                    samplesSinceLook = 0;
                    const QString text = hypothesis();
                    if (!text.isEmpty() && text != lastPartial) {
                        lastPartial = text;
                        relay->post([text](SpeechSink* sink) { sink->speechPartial(text); });
                    }
                }
            }
        }
    }

    void finish()
    {
        if (finished)
            return;
        finished = true;
        if (ensureDecoder() && inUtterance)
            endSegment();
        giveBack();
        relay->post([](SpeechSink* sink) { sink->speechFinished(); });
    }

    void giveBack()
    {
        if (!decoder)
            return;
        if (inUtterance)
            ps_end_utt(decoder);
        inUtterance = false;
        engine->release(decoder);
        decoder = nullptr;
    }
};

class PocketSphinxStream final : public SpeechStream
{
public:
    PocketSphinxStream(PocketSphinxEngine& engine, QThreadPool& pool, QObject* context, SpeechSink* sink)
        : m_queue(std::make_shared<SerialQueue>(pool))
        , m_state(std::make_shared<DecodeState>())
    {
        m_state->engine = &engine;
        m_state->relay = SinkRelay::make(context, sink);
    }

    ~PocketSphinxStream() override
    {
        m_state->relay->detach();
        // The decoder goes back to the pool once the queued jobs have let go of the state.
        m_queue->post([state = std::move(m_state)]() mutable { state.reset(); });
    }

    void feed(QByteArray pcm) override
    {
        m_queue->post([state = m_state, pcm = std::move(pcm)] {
            if (state->relay->attached() && !state->failed)
                state->process(pcm);
        });
    }

    void finish() override
    {
        m_queue->post([state = m_state] {
            if (!state->failed)
                state->finish();
        });
    }

private:
    std::shared_ptr<SerialQueue> m_queue;
    std::shared_ptr<DecodeState> m_state;
};

} // namespace

PocketSphinxModel PocketSphinxModel::debianDefault()
{
    const QString base = u"/usr/share/pocketsphinx/model/en-us/"_s;
    return { base + u"en-us"_s, base + u"en-us.lm.bin"_s, base + u"cmudict-en-us.dict"_s };
}

PocketSphinxEngine::PocketSphinxEngine(PocketSphinxModel model, int threads)
    : m_model(std::move(model))
{
    m_pool.setMaxThreadCount(std::max(1, threads));
    // Decoders stay warm between dictations; threads may as well too.
    m_pool.setExpiryTimeout(-1);
    // PocketSphinx writes pages of diagnostics to stderr; the server has its own log.
    err_set_logfp(nullptr);
}

PocketSphinxEngine::~PocketSphinxEngine()
{
    m_pool.waitForDone();
    for (ps_decoder_t* decoder : m_idle)
        ps_free(decoder);
}

QString PocketSphinxEngine::name() const
{
    return u"pocketsphinx"_s;
}

bool PocketSphinxEngine::prepare(int decoders, QString* error)
{
    for (const QString& path : { m_model.acousticModel, m_model.languageModel, m_model.dictionary }) {
        if (!QFileInfo::exists(path)) {
            *error = u"model file %1 does not exist (install pocketsphinx-en-us or pass the model options)"_s.arg(path);
            return false;
        }
    }
    for (int i = 0; i < std::max(1, decoders); ++i) {
        ps_decoder_t* decoder = create(error);
        if (!decoder)
            return false;
        release(decoder);
    }
    return true;
}

ps_decoder_t* PocketSphinxEngine::create(QString* error)
{
    // ps_init() writes into its configuration, and sphinxbase keeps some global state:
    // build one decoder at a time, each from a configuration of its own.
    const std::lock_guard lock(m_createMutex);
    const QByteArray hmm = m_model.acousticModel.toLocal8Bit();
    const QByteArray lm = m_model.languageModel.toLocal8Bit();
    const QByteArray dict = m_model.dictionary.toLocal8Bit();
    // No flat-lexicon second pass: it reruns the whole segment when the segment ends, which
    // is exactly when the user waits for the text (a 5-second segment cost ~170 ms more), and
    // on Debian's LibriVox clips the first pass with the best-path search is as accurate.
    cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-lm", lm.constData(), "-dict",
        dict.constData(), "-fwdflat", "no", static_cast<const char*>(nullptr));
    if (!config) {
        *error = u"PocketSphinx rejected its configuration"_s;
        return nullptr;
    }
    ps_decoder_t* decoder = ps_init(config);
    cmd_ln_free_r(config);
    if (!decoder) {
        *error = u"PocketSphinx could not load the model from %1"_s.arg(m_model.acousticModel);
        return nullptr;
    }
    if (m_initialCmn.empty()) {
        if (cmn_t* cmn = ps_get_feat(decoder)->cmn_struct; cmn && cmn->veclen > 0) {
            m_initialCmn.resize(size_t(cmn->veclen));
            cmn_live_get(cmn, m_initialCmn.data());
        }
    }
    return decoder;
}

ps_decoder_t* PocketSphinxEngine::acquire(QString* error)
{
    ps_decoder_t* decoder = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idle.empty()) {
            decoder = m_idle.back();
            m_idle.pop_back();
        }
    }
    if (!decoder)
        decoder = create(error);
    if (!decoder)
        return nullptr;
    // A decoder adapts to the voice and the room it hears (cepstral mean, noise floor).
    // Every stream starts from the model's own starting point instead, so one user's
    // dictation never shapes the next one's, and the same audio gives the same words.
    ps_start_stream(decoder);
    if (cmn_t* cmn = ps_get_feat(decoder)->cmn_struct; cmn && int(m_initialCmn.size()) == cmn->veclen)
        cmn_live_set(cmn, m_initialCmn.data());
    return decoder;
}

void PocketSphinxEngine::release(ps_decoder_t* decoder)
{
    const std::lock_guard lock(m_mutex);
    m_idle.push_back(decoder);
}

std::unique_ptr<SpeechStream> PocketSphinxEngine::open(QObject* context, SpeechSink* sink)
{
    return std::make_unique<PocketSphinxStream>(*this, m_pool, context, sink);
}
