#pragma once

#include "TextEngine.h"

// Deterministic clean-up and tone rewriting with word lists and phrase tables: no model,
// no network, well under a millisecond for a paragraph. Each tone's rules are described in
// server/README.md; they are rules, not understanding, and read that way.
class RuleTextEngine final : public TextEngine
{
public:
    QString name() const override;
    void process(const TextRequest& request, QObject* context, std::function<void(QString)> done) override;

    static QString cleanup(const QString& text, const QStringList& dictionary);
    static QString rewrite(const QString& text, Tone tone, const QStringList& dictionary);
    // Writes every dictionary term with its exact spelling wherever the text has it in any
    // case, and changes nothing else. Used after other engines too.
    static QString applyDictionary(const QString& text, const QStringList& dictionary);
};
