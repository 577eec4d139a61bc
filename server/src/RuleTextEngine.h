#pragma once

#include "TextEngine.h"

#include <QObject>
#include <QThreadPool>

// Deterministic clean-up and tone rewriting with word lists and phrase tables: no model,
// no network, well under a millisecond for a paragraph. Each tone's rules are described in
// server/README.md; they are rules, not understanding, and read that way.
//
// process() works on its own threads and answers on the thread of `context`: the network
// thread carries every stream and page, and must never wait for a long text.
class RuleTextEngine final : public TextEngine
{
public:
    RuleTextEngine();
    ~RuleTextEngine() override;

    QString name() const override;
    void process(const TextRequest& request, QObject* context, std::function<void(QString)> done) override;

    static QString cleanup(const QString& text, const QStringList& dictionary);
    static QString rewrite(const QString& text, Tone tone, const QStringList& dictionary);
    // Writes every dictionary term with its exact spelling wherever the text has it in any
    // case, and changes nothing else. Used after other engines too.
    static QString applyDictionary(const QString& text, const QStringList& dictionary);

private:
    // Lives on the thread that made the engine; answers are posted to it, and it checks
    // there whether the requester is still around.
    QObject m_home;
    // Declared after m_home: destroyed first, and its destructor waits for running work.
    QThreadPool m_pool;
};
