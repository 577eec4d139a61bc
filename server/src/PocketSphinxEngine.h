#pragma once

#include "SpeechEngine.h"

#include <QThreadPool>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

struct ps_decoder_s;
struct ngram_model_s;

struct PocketSphinxModel {
    QString acousticModel; // directory ("-hmm")
    QString languageModel; // "-lm"
    QString dictionary; // "-dict"

    static PocketSphinxModel debianDefault();
};

// PocketSphinx with one decoder per active stream, decoded on a few threads ("lanes").
//
// A decoder is mostly its language model, its dictionary and its search tree. The search
// tree is the stream's own state, but the language model (33 MiB) is read-only apart from
// a small backoff cache that sphinxbase updates while scoring, so it cannot be scored from
// two threads at once. Each lane therefore owns one copy of the model, shared by every
// decoder of that lane, and runs its streams' jobs on a single thread. The dictionary is
// cut down to the words the language model knows (the others can never be recognised),
// which nearly halves it. Finished streams hand their decoder back to their lane's pool.
class PocketSphinxEngine final : public SpeechEngine
{
public:
    PocketSphinxEngine(PocketSphinxModel model, int threads);
    ~PocketSphinxEngine() override;

    // Checks the model by building the first decoders (at least one); call once at
    // start-up. Each decoder holds about 38 MiB (45 without jemalloc), each lane 33 MiB
    // more for its model.
    bool prepare(int decoders, QString* error);

    QString name() const override;
    std::unique_ptr<SpeechStream> open(QObject* context, SpeechSink* sink) override;

    int lanes() const { return int(m_lanes.size()); }

    // Decodes `pcm` (16 kHz mono int16) once on a lane thread, between that lane's stream
    // jobs, and calls `done` there with the decoder's processor time per second of audio
    // (0 when it failed).
    void measureRealTimeFactor(QByteArray pcm, std::function<void(double)> done);

    struct Lane;
    ps_decoder_s* acquire(Lane& lane, QString* error);
    void release(Lane& lane, ps_decoder_s* decoder);

private:
    ps_decoder_s* create(Lane& lane, QString* error);
    bool writeDictionary(QString* error);

    PocketSphinxModel m_model;
    std::vector<std::unique_ptr<Lane>> m_lanes;
    std::mutex m_createMutex;
    // The dictionary with only the language model's words, in an anonymous memory file
    // that PocketSphinx reads through /proc/self/fd like any other file.
    int m_dictionaryFd = -1;
    QByteArray m_dictionaryPath;
    // Written once by the decoder that prepare() builds, before any stream runs; read-only after.
    std::vector<float> m_initialCmn;
};
