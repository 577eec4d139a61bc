#pragma once

#include "SpeechEngine.h"

#include <QThreadPool>

#include <mutex>
#include <vector>

struct ps_decoder_s;

struct PocketSphinxModel {
    QString acousticModel; // directory ("-hmm")
    QString languageModel; // "-lm"
    QString dictionary; // "-dict"

    static PocketSphinxModel debianDefault();
};

// PocketSphinx with one decoder per active stream. Decoders are expensive to build (the
// dictionary alone is 130,000 words), so finished streams hand theirs back to a pool for
// the next one. All decoding runs on the engine's own threads.
class PocketSphinxEngine final : public SpeechEngine
{
public:
    PocketSphinxEngine(PocketSphinxModel model, int threads);
    ~PocketSphinxEngine() override;

    // Checks the model by building the first decoders (at least one); call once at
    // start-up. Each decoder holds about 100 MiB.
    bool prepare(int decoders, QString* error);

    QString name() const override;
    std::unique_ptr<SpeechStream> open(QObject* context, SpeechSink* sink) override;

    ps_decoder_s* acquire(QString* error);
    void release(ps_decoder_s* decoder);

private:
    ps_decoder_s* create(QString* error);

    PocketSphinxModel m_model;
    QThreadPool m_pool;
    std::mutex m_mutex;
    std::mutex m_createMutex;
    std::vector<ps_decoder_s*> m_idle;
    // Written once by the decoder that prepare() builds, before any stream runs; read-only after.
    std::vector<float> m_initialCmn;
};
