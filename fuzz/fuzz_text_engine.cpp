// Runs the rule text engine, clean-up and each tone, with and without a personal
// dictionary, on arbitrary text. What comes out may only be made of what went in: the
// input's own characters in either case, the dictionary's spellings, plain punctuation, and
// the ASCII words of the tone phrases. It never grows past a bound, and it stays valid
// UTF-16 when the input was.
#include "RuleTextEngine.h"
#include "Tone.h"

#include <QSet>
#include <QStringList>

#include <cstddef>
#include <cstdint>

namespace {

bool isWellFormed(const QString& text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate()) {
            if (i + 1 >= text.size() || !text.at(i + 1).isLowSurrogate())
                return false;
            ++i;
        } else if (c.isLowSurrogate()) {
            return false;
        }
    }
    return true;
}

QSet<char32_t> allowedCharacters(const QString& text, const QStringList& dictionary, bool tone)
{
    QSet<char32_t> allowed;
    auto addWithCase = [&allowed](const QString& piece) {
        for (const char32_t c : piece.toUcs4()) {
            allowed.insert(c);
            const QString one = QString::fromUcs4(&c, 1);
            for (const QString& cased : { one.toLower(), one.toUpper(), one.toCaseFolded() }) {
                for (const char32_t d : cased.toUcs4())
                    allowed.insert(d);
            }
        }
    };
    addWithCase(text);
    for (const QString& term : dictionary)
        addWithCase(term);
    for (const char c : std::string_view(" .,!?'\n"))
        allowed.insert(static_cast<char32_t>(c));
    if (tone) {
        // Tone phrases and contractions are plain ASCII words and punctuation.
        for (char32_t c = 0x20; c < 0x7f; ++c)
            allowed.insert(c);
    }
    return allowed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // First byte: which engine (clean-up or a tone) and whether a dictionary is given.
    // With a dictionary, the text is its first line and the terms are the lines after it.
    const uint8_t mode = data[0];
    const QString input = QString::fromUtf8(reinterpret_cast<const char*>(data) + 1, static_cast<qsizetype>(size) - 1);
    QString text = input;
    QStringList dictionary;
    if (mode & 0x80) {
        dictionary = input.split(u'\n');
        text = dictionary.takeFirst();
    }
    const size_t which = (mode & 0x7f) % (allTones.size() + 1);
    const bool isTone = which > 0;
    const QString output = isTone ? RuleTextEngine::rewrite(text, allTones.at(which - 1), dictionary)
                                  : RuleTextEngine::cleanup(text, dictionary);

    if (isWellFormed(text) && !isWellFormed(output))
        __builtin_trap();
    qsizetype longestTerm = 0;
    for (const QString& term : dictionary)
        longestTerm = std::max(longestTerm, term.size());
    if (output.size() > 2 * text.size() * std::max<qsizetype>(1, longestTerm) + 256)
        __builtin_trap();
    const QSet<char32_t> allowed = allowedCharacters(text, dictionary, isTone);
    for (const char32_t c : output.toUcs4()) {
        if (!allowed.contains(c))
            __builtin_trap();
    }
    return 0;
}
