#include "PocketSphinxEngine.h"

#include "SerialQueue.h"

#include <QFile>
#include <QFileInfo>
#include <QObject>
#include <QPointer>
#include <QSet>

#include <pocketsphinx.h>
#include <sphinxbase/cmn.h>
#include <sphinxbase/err.h>
#include <sphinxbase/feat.h>

#include <algorithm>
#include <ctime>
#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

// The saved starting mean is kept as floats in the header, which does not include sphinxbase.
static_assert(std::is_same_v<mfcc_t, float>, "sphinxbase built with fixed-point features");

struct PocketSphinxEngine::Lane {
    // One thread: the lane's language model may only be scored from one thread at a time.
    QThreadPool pool;
    ngram_model_t* languageModel = nullptr;
    std::mutex mutex; // guards idle
    std::vector<ps_decoder_t*> idle;
    std::atomic<int> streams = 0; // streams open on this lane
};

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
    PocketSphinxEngine::Lane* lane = nullptr;
    std::shared_ptr<SinkRelay> relay;
    ps_decoder_t* decoder = nullptr;
    bool failed = false;
    bool finished = false;
    bool inUtterance = false; // ps_start_utt() called and not yet ended
    bool speechStarted = false;
    qint64 samplesSinceLook = 0;
    QString lastPartial;

    ~DecodeState()
    {
        giveBack();
        if (lane)
            --lane->streams;
    }

    bool ensureDecoder()
    {
        if (decoder || failed)
            return decoder != nullptr;
        QString error;
        decoder = engine->acquire(*lane, &error);
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
        engine->release(*lane, decoder);
        decoder = nullptr;
    }
};

class PocketSphinxStream final : public SpeechStream
{
public:
    PocketSphinxStream(PocketSphinxEngine& engine, PocketSphinxEngine::Lane& lane, QObject* context, SpeechSink* sink)
        : m_queue(std::make_shared<SerialQueue>(lane.pool))
        , m_state(std::make_shared<DecodeState>())
    {
        ++lane.streams;
        m_state->engine = &engine;
        m_state->lane = &lane;
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
    for (int i = 0; i < std::max(1, threads); ++i) {
        auto lane = std::make_unique<Lane>();
        lane->pool.setMaxThreadCount(1);
        // Decoders stay warm between dictations; threads may as well too.
        lane->pool.setExpiryTimeout(-1);
        m_lanes.push_back(std::move(lane));
    }
    // PocketSphinx writes pages of diagnostics to stderr; the server has its own log.
    err_set_logfp(nullptr);
}

PocketSphinxEngine::~PocketSphinxEngine()
{
    for (auto& lane : m_lanes)
        lane->pool.waitForDone();
    for (auto& lane : m_lanes) {
        for (ps_decoder_t* decoder : lane->idle)
            ps_free(decoder);
        if (lane->languageModel)
            ngram_model_free(lane->languageModel);
    }
    if (m_dictionaryFd >= 0)
        ::close(m_dictionaryFd);
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
    if (!writeDictionary(error))
        return false;
    // Every lane gets its language model and a warm decoder now; the rest go round the lanes.
    const int count = std::max({ 1, decoders, lanes() });
    for (int i = 0; i < count; ++i) {
        Lane& lane = *m_lanes[size_t(i % lanes())];
        ps_decoder_t* decoder = create(lane, error);
        if (!decoder)
            return false;
        release(lane, decoder);
    }
    return true;
}

bool PocketSphinxEngine::writeDictionary(QString* error)
{
    QFile file(m_model.dictionary);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"cannot read the dictionary %1"_s.arg(m_model.dictionary);
        return false;
    }
    const QByteArray lm = m_model.languageModel.toLocal8Bit();
    logmath_t* logMath = logmath_init(1.0001, 0, FALSE);
    ngram_model_t* model = ngram_model_read(nullptr, lm.constData(), NGRAM_AUTO, logMath);
    logmath_free(logMath);
    if (!model) {
        *error = u"PocketSphinx could not read the language model %1"_s.arg(m_model.languageModel);
        return false;
    }
    // Keeps the dictionary's order: the search tree is built in that order, and the same
    // order gives the same results as the whole dictionary.
    QByteArray kept;
    kept.reserve(file.size());
    const qint32 unknown = ngram_unknown_wid(model);
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        qsizetype end = 0;
        while (end < line.size() && line.at(end) != ' ' && line.at(end) != '\t' && line.at(end) != '\n')
            ++end;
        QByteArray word = line.left(end);
        // Alternative pronunciations are "word(2)".
        if (const qsizetype paren = word.indexOf('('); paren > 0 && word.endsWith(')'))
            word.truncate(paren);
        if (word.isEmpty() || ngram_wid(model, word.constData()) == unknown)
            continue;
        kept += line;
        if (!line.endsWith('\n'))
            kept += '\n';
    }
    ngram_model_free(model);

    m_dictionaryFd = ::memfd_create("quillet-dictionary", MFD_CLOEXEC);
    if (m_dictionaryFd < 0) {
        *error = u"cannot make the dictionary's memory file"_s;
        return false;
    }
    for (qsizetype at = 0; at < kept.size();) {
        const ssize_t written = ::write(m_dictionaryFd, kept.constData() + at, size_t(kept.size() - at));
        if (written <= 0) {
            *error = u"cannot write the dictionary's memory file"_s;
            return false;
        }
        at += written;
    }
    m_dictionaryPath = "/proc/self/fd/" + QByteArray::number(m_dictionaryFd);
    return true;
}

ps_decoder_t* PocketSphinxEngine::create(Lane& lane, QString* error)
{
    // ps_init() writes into its configuration, and sphinxbase keeps some global state:
    // build one decoder at a time, each from a configuration of its own.
    const std::lock_guard lock(m_createMutex);
    const QByteArray hmm = m_model.acousticModel.toLocal8Bit();
    // No flat-lexicon second pass: it reruns the whole segment when the segment ends, which
    // is exactly when the user waits for the text (a 5-second segment cost ~170 ms more), and
    // on Debian's LibriVox clips the first pass with the best-path search is as accurate.
    // No "-lm": the lane's shared model is set below.
    cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-dict",
        m_dictionaryPath.constData(), "-fwdflat", "no", static_cast<const char*>(nullptr));
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
    if (!lane.languageModel) {
        // Read with the decoder's own settings (language weight, insertion penalty) and
        // log base, as ps_init() would have; every decoder has the same ones.
        const QByteArray lm = m_model.languageModel.toLocal8Bit();
        lane.languageModel
            = ngram_model_read(ps_get_config(decoder), lm.constData(), NGRAM_AUTO, ps_get_logmath(decoder));
        if (!lane.languageModel) {
            ps_free(decoder);
            *error = u"PocketSphinx could not read the language model %1"_s.arg(m_model.languageModel);
            return nullptr;
        }
    }
    // The search takes its own reference to the model.
    if (ps_set_lm(decoder, "words", lane.languageModel) < 0 || ps_set_search(decoder, "words") < 0) {
        ps_free(decoder);
        *error = u"PocketSphinx could not set up its search"_s;
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

ps_decoder_t* PocketSphinxEngine::acquire(Lane& lane, QString* error)
{
    ps_decoder_t* decoder = nullptr;
    {
        const std::lock_guard lock(lane.mutex);
        if (!lane.idle.empty()) {
            decoder = lane.idle.back();
            lane.idle.pop_back();
        }
    }
    if (!decoder)
        decoder = create(lane, error);
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

void PocketSphinxEngine::release(Lane& lane, ps_decoder_t* decoder)
{
    const std::lock_guard lock(lane.mutex);
    lane.idle.push_back(decoder);
}

std::unique_ptr<SpeechStream> PocketSphinxEngine::open(QObject* context, SpeechSink* sink)
{
    // The lane with the fewest streams; a stream stays on its lane until it ends.
    Lane* lane = m_lanes.front().get();
    for (auto& candidate : m_lanes) {
        if (candidate->streams.load() < lane->streams.load())
            lane = candidate.get();
    }
    return std::make_unique<PocketSphinxStream>(*this, *lane, context, sink);
}

void PocketSphinxEngine::measureRealTimeFactor(QByteArray pcm, std::function<void(double)> done)
{
    Lane& lane = *m_lanes.front();
    lane.pool.start([this, &lane, pcm = std::move(pcm), done = std::move(done)] {
        QString error;
        ps_decoder_t* decoder = acquire(lane, &error);
        if (!decoder) {
            done(0.0);
            return;
        }
        const auto* samples = reinterpret_cast<const int16*>(pcm.constData());
        const qsizetype count = pcm.size() / 2;
        auto decode = [&] {
            bool ok = ps_start_utt(decoder) >= 0;
            for (qsizetype at = 0; ok && at < count; at += pieceSamples) {
                const qsizetype n = std::min(pieceSamples, count - at);
                ok = ps_process_raw(decoder, samples + at, size_t(n), FALSE, FALSE) >= 0;
                // A stream looks at its provisional text this often; so does the measurement.
                ps_get_hyp(decoder, nullptr);
            }
            ps_end_utt(decoder);
            ps_get_hyp(decoder, nullptr);
            return ok;
        };
        // The first pass touches the decoder's fresh memory for the first time and costs a
        // good third more than any later one; a stream in service runs warm.
        bool ok = decode();
        // Processor time of this thread only: what one stream costs a core, whatever else
        // the machine is doing meanwhile.
        timespec start {}, end {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
        ok = ok && decode();
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        release(lane, decoder);
        const double seconds = double(end.tv_sec - start.tv_sec) + double(end.tv_nsec - start.tv_nsec) / 1e9;
        done(ok && count > 0 ? seconds / (double(count) / sampleRate) : 0.0);
    });
}
