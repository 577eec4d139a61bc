#include "RuleTextEngine.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <utility>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

// A whitespace-separated piece of text: leading punctuation, the word itself, trailing
// punctuation. "(well," is {"(", "well", ","}. Rules look at words and keep the punctuation.
struct Chunk {
    QString lead;
    QString core;
    QString trail;
};
using Chunks = std::vector<Chunk>;

bool isWordChar(QChar c)
{
    return c.isLetterOrNumber();
}

Chunks split(const QString& text)
{
    Chunks chunks;
    qsizetype i = 0;
    const qsizetype n = text.size();
    while (i < n) {
        while (i < n && text.at(i).isSpace())
            ++i;
        const qsizetype start = i;
        while (i < n && !text.at(i).isSpace())
            ++i;
        if (start == i)
            break;
        const QStringView piece = QStringView(text).mid(start, i - start);
        qsizetype first = 0;
        while (first < piece.size() && !isWordChar(piece.at(first)))
            ++first;
        qsizetype last = piece.size();
        while (last > first && !isWordChar(piece.at(last - 1)))
            --last;
        Chunk chunk;
        if (first == piece.size()) {
            // Punctuation only ("-", "..."): keep it as a word so that nothing is lost.
            chunk.core = piece.toString();
        } else {
            chunk.lead = piece.first(first).toString();
            chunk.core = piece.mid(first, last - first).toString();
            chunk.trail = piece.mid(last).toString();
        }
        chunks.push_back(std::move(chunk));
    }
    return chunks;
}

QString join(const Chunks& chunks)
{
    QString out;
    for (const Chunk& chunk : chunks) {
        if (!out.isEmpty())
            out += QLatin1Char(' ');
        out += chunk.lead + chunk.core + chunk.trail;
    }
    return out;
}

// Lower case with typographic apostrophes folded, so "Don’t" and "don't" match one rule.
QString key(const QString& word)
{
    QString k = word.toLower();
    k.replace(QChar(0x2019), QLatin1Char('\''));
    return k;
}

bool endsSentence(QStringView trail)
{
    // From the back: sentence ends that rules add land at the end of a trail, so a long
    // run of punctuation is not scanned again for every word removed after it.
    for (qsizetype i = trail.size() - 1; i >= 0; --i) {
        const QChar c = trail.at(i);
        if (c == u'.' || c == u'!' || c == u'?' || c == QChar(0x2026))
            return true;
    }
    return false;
}

bool startsUpper(const QString& s)
{
    return !s.isEmpty() && s.at(0).isUpper();
}

QString withFirstUpper(QString s)
{
    if (!s.isEmpty())
        s[0] = s.at(0).toUpper();
    return s;
}

// Takes a removed piece's trailing punctuation into account: a sentence end moves to the
// word before, a comma that would now double up with the one before disappears.
void absorbTrail(Chunks& chunks, qsizetype before, const QString& removedTrail)
{
    if (before < 0)
        return;
    Chunk& prev = chunks[before];
    if (endsSentence(removedTrail)) {
        if (!endsSentence(prev.trail)) {
            if (prev.trail.endsWith(u','))
                prev.trail.chop(1);
            prev.trail += removedTrail.trimmed().remove(u',');
        }
    } else if (removedTrail.contains(u',') && prev.trail.endsWith(u',')) {
        // "we should, I think, go" without the hedge reads "we should go".
        prev.trail.chop(1);
    }
}

// A phrase rule replaces a run of words (compared in lower case) by other words; an
// empty replacement removes the run. Interior words must carry no punctuation, so a rule
// never joins words across a comma or a sentence end.
struct PhraseRule {
    QStringList to;
    qsizetype length = 0; // words in `from`
    bool exactCase = false; // dictionary terms keep their spelling even at a sentence start
};

// Rules sit in a tree of words, so finding the longest rule that starts at a word costs
// at most the length of that rule, however many rules share their first words (a
// dictionary of thousands of terms stays as fast as one of three). The longest match
// wins, so "kind of" beats "kind"; of two rules with the same words the first one added
// wins.
class PhraseTable
{
public:
    PhraseTable() = default;
    explicit PhraseTable(
        const std::vector<std::pair<const char16_t*, const char16_t*>>& pairs, bool sentenceStartOnly = false)
        : m_sentenceStartOnly(sentenceStartOnly)
    {
        for (const auto& [from, to] : pairs)
            add(QString::fromUtf16(from).split(u' ', Qt::SkipEmptyParts),
                QString::fromUtf16(to).split(u' ', Qt::SkipEmptyParts), false);
    }

    void add(const QStringList& from, const QStringList& to, bool exactCase)
    {
        if (from.isEmpty())
            return;
        qsizetype node = 0;
        for (const QString& word : from) {
            const QString k = key(word);
            const auto it = m_nodes[size_t(node)].next.constFind(k);
            if (it != m_nodes[size_t(node)].next.cend()) {
                node = *it;
                continue;
            }
            const qsizetype child = qsizetype(m_nodes.size());
            m_nodes[size_t(node)].next.insert(k, child);
            m_nodes.emplace_back();
            node = child;
        }
        if (m_nodes[size_t(node)].rule < 0) {
            m_nodes[size_t(node)].rule = qsizetype(m_rules.size());
            m_rules.push_back(PhraseRule { to, from.size(), exactCase });
        }
    }

    bool isEmpty() const { return m_rules.empty(); }

    void apply(Chunks& chunks) const
    {
        if (m_rules.empty())
            return;
        const qsizetype n = qsizetype(chunks.size());
        std::vector<QString> keys;
        keys.reserve(size_t(n));
        for (const Chunk& chunk : chunks)
            keys.push_back(key(chunk.core));

        Chunks out;
        out.reserve(chunks.size());
        // Leading punctuation of removed runs ("(maybe" without "maybe") moves on to the
        // next word that stays; it is collected here and attached once, so a long run of
        // removals costs no more than its length.
        QString carriedLead;
        qsizetype i = 0;
        while (i < n) {
            const bool sentenceStart = out.empty() || endsSentence(out.back().trail);
            const PhraseRule* match = (m_sentenceStartOnly && !sentenceStart) ? nullptr : longestMatch(chunks, keys, i);
            if (!match) {
                Chunk chunk = std::move(chunks[size_t(i)]);
                if (!carriedLead.isEmpty())
                    chunk.lead.prepend(std::exchange(carriedLead, QString()));
                out.push_back(std::move(chunk));
                ++i;
                continue;
            }
            const qsizetype len = match->length;
            Chunk& first = chunks[size_t(i)];
            const Chunk& last = chunks[size_t(i + len - 1)];
            if (match->to.isEmpty()) {
                carriedLead += first.lead;
                first.lead.clear();
                absorbTrail(out, qsizetype(out.size()) - 1, last.trail);
                i += len;
                continue;
            }
            const bool capital = startsUpper(first.core);
            for (qsizetype w = 0; w < match->to.size(); ++w) {
                Chunk chunk;
                chunk.core = match->to.at(w);
                if (w == 0) {
                    chunk.lead = std::exchange(carriedLead, QString()) + first.lead;
                    if (capital && !match->exactCase)
                        chunk.core = withFirstUpper(chunk.core);
                }
                if (w == match->to.size() - 1)
                    chunk.trail = last.trail;
                out.push_back(std::move(chunk));
            }
            i += len;
        }
        chunks = std::move(out);
    }

private:
    struct Node {
        QHash<QString, qsizetype> next;
        qsizetype rule = -1;
    };

    const PhraseRule* longestMatch(const Chunks& chunks, const std::vector<QString>& keys, qsizetype at) const
    {
        const PhraseRule* best = nullptr;
        qsizetype node = 0;
        for (qsizetype w = 0; at + w < qsizetype(chunks.size()); ++w) {
            const Chunk& chunk = chunks[size_t(at + w)];
            // A phrase never spans punctuation: later words carry no lead, and only the
            // last word of a match may carry a trail.
            if (w > 0 && (!chunk.lead.isEmpty() || !chunks[size_t(at + w - 1)].trail.isEmpty()))
                break;
            const auto it = m_nodes[size_t(node)].next.constFind(keys[size_t(at + w)]);
            if (it == m_nodes[size_t(node)].next.cend())
                break;
            node = *it;
            if (m_nodes[size_t(node)].rule >= 0)
                best = &m_rules[size_t(m_nodes[size_t(node)].rule)];
        }
        return best;
    }

    std::vector<Node> m_nodes { Node {} };
    std::vector<PhraseRule> m_rules;
    bool m_sentenceStartOnly = false;
};

// --- clean-up ------------------------------------------------------------------------

const QSet<QString>& fillers()
{
    static const QSet<QString> words { u"um"_s, u"umm"_s, u"ummm"_s, u"uh"_s, u"uhh"_s, u"uhm"_s, u"er"_s, u"erm"_s,
        u"ah"_s, u"ahh"_s, u"hmm"_s, u"hmmm"_s, u"hm"_s, u"mm"_s, u"mmm"_s, u"eh"_s };
    return words;
}

void removeFillers(Chunks& chunks)
{
    Chunks out;
    out.reserve(chunks.size());
    // As in PhraseTable::apply: a removed filler's leading punctuation goes to the next
    // word that stays, collected once rather than copied along every removed word.
    QString carriedLead;
    for (Chunk& chunk : chunks) {
        if (fillers().contains(key(chunk.core))) {
            carriedLead += chunk.lead;
            absorbTrail(out, qsizetype(out.size()) - 1, chunk.trail);
            continue;
        }
        if (!carriedLead.isEmpty())
            chunk.lead.prepend(std::exchange(carriedLead, QString()));
        out.push_back(std::move(chunk));
    }
    chunks = std::move(out);
}

bool hasDigit(const QString& s)
{
    return std::any_of(s.begin(), s.end(), [](QChar c) { return c.isDigit(); });
}

// "the the" is a stumble; "had had" and "that that" are English.
void collapseRepeats(Chunks& chunks)
{
    static const QSet<QString> legitimate { u"had"_s, u"that"_s };
    Chunks out;
    out.reserve(chunks.size());
    for (Chunk& chunk : chunks) {
        if (!out.empty()) {
            Chunk& prev = out.back();
            const QString k = key(chunk.core);
            if (chunk.lead.isEmpty() && (prev.trail.isEmpty() || prev.trail == u","_s) && k == key(prev.core)
                && !legitimate.contains(k) && !hasDigit(k) && isWordChar(k.isEmpty() ? QChar() : k.at(0))) {
                prev.trail = chunk.trail;
                continue;
            }
        }
        out.push_back(std::move(chunk));
    }
    chunks = std::move(out);
}

void capitalise(Chunks& chunks)
{
    static const QSet<QString> pronounForms { u"i"_s, u"i'm"_s, u"i've"_s, u"i'll"_s, u"i'd"_s };
    bool sentenceStart = true;
    for (Chunk& chunk : chunks) {
        if (pronounForms.contains(key(chunk.core)))
            chunk.core[0] = u'I';
        else if (sentenceStart && !chunk.core.isEmpty() && chunk.core.at(0).isLower())
            chunk.core = withFirstUpper(chunk.core);
        if (!chunk.core.isEmpty() && isWordChar(chunk.core.at(0)))
            sentenceStart = endsSentence(chunk.trail);
        else if (endsSentence(chunk.core + chunk.trail))
            sentenceStart = true;
    }
}

QString endWithPunctuation(QString text)
{
    if (text.isEmpty())
        return text;
    static const QString closers = u")]\"'\u201D\u2019"_s;
    qsizetype end = text.size();
    while (end > 0 && closers.contains(text.at(end - 1)))
        --end;
    if (end == 0)
        return text;
    const QChar last = text.at(end - 1);
    if (last == u'.' || last == u'!' || last == u'?' || last == QChar(0x2026))
        return text;
    if (last == u',' || last == u';' || last == u':' || last == u'-') {
        text[end - 1] = u'.';
        return text;
    }
    text.insert(end, u'.');
    return text;
}

PhraseTable dictionaryTable(const QStringList& dictionary)
{
    PhraseTable table;
    for (const QString& term : dictionary) {
        const QStringList words = term.split(u' ', Qt::SkipEmptyParts);
        if (!words.isEmpty())
            table.add(words, words, true);
    }
    return table;
}

// Terms such as "C++" or "Node.js" end in punctuation that the splitter files under
// `trail`; compare the whole piece for them.
void applyDictionaryPunctuated(Chunks& chunks, const QStringList& dictionary)
{
    QHash<QString, QString> punctuated;
    for (const QString& term : dictionary) {
        const QString trimmed = term.trimmed();
        if (!trimmed.isEmpty() && !trimmed.contains(u' ') && !isWordChar(trimmed.back()))
            punctuated.insert(key(trimmed), trimmed);
    }
    if (punctuated.isEmpty())
        return;
    qsizetype longest = 0;
    for (const QString& k : punctuated.keys())
        longest = std::max(longest, k.size());
    for (Chunk& chunk : chunks) {
        // Only as much of the trail as the longest term can cover: "a" followed by
        // thousands of dots is compared a few times, not once per dot.
        const qsizetype most = std::min(chunk.trail.size(), longest - chunk.core.size());
        for (qsizetype cut = most; cut > 0; --cut) {
            const auto it = punctuated.constFind(key(chunk.core + chunk.trail.first(cut)));
            if (it != punctuated.cend()) {
                chunk.core = *it;
                chunk.trail = chunk.trail.mid(cut);
                break;
            }
        }
    }
}

// --- tones -----------------------------------------------------------------------------

using Pairs = std::vector<std::pair<const char16_t*, const char16_t*>>;

const PhraseTable& expandContractions()
{
    static const PhraseTable table(Pairs {
        { u"don't", u"do not" },
        { u"doesn't", u"does not" },
        { u"didn't", u"did not" },
        { u"can't", u"cannot" },
        { u"won't", u"will not" },
        { u"isn't", u"is not" },
        { u"aren't", u"are not" },
        { u"wasn't", u"was not" },
        { u"weren't", u"were not" },
        { u"haven't", u"have not" },
        { u"hasn't", u"has not" },
        { u"hadn't", u"had not" },
        { u"couldn't", u"could not" },
        { u"shouldn't", u"should not" },
        { u"wouldn't", u"would not" },
        { u"i'm", u"I am" },
        { u"i've", u"I have" },
        { u"i'll", u"I will" },
        { u"i'd", u"I would" },
        { u"you're", u"you are" },
        { u"you've", u"you have" },
        { u"you'll", u"you will" },
        { u"we're", u"we are" },
        { u"we've", u"we have" },
        { u"we'll", u"we will" },
        { u"they're", u"they are" },
        { u"they've", u"they have" },
        { u"they'll", u"they will" },
        { u"it's", u"it is" },
        { u"that's", u"that is" },
        { u"there's", u"there is" },
        { u"what's", u"what is" },
        { u"let's", u"let us" },
        { u"he's", u"he is" },
        { u"she's", u"she is" },
        { u"here's", u"here is" },
    });
    return table;
}

const PhraseTable& contract()
{
    static const PhraseTable table(Pairs {
        { u"do not", u"don't" },
        { u"does not", u"doesn't" },
        { u"did not", u"didn't" },
        { u"cannot", u"can't" },
        { u"can not", u"can't" },
        { u"will not", u"won't" },
        { u"is not", u"isn't" },
        { u"are not", u"aren't" },
        { u"was not", u"wasn't" },
        { u"were not", u"weren't" },
        { u"i am", u"I'm" },
        { u"i will", u"I'll" },
        { u"you are", u"you're" },
        { u"we are", u"we're" },
        { u"they are", u"they're" },
        { u"it is", u"it's" },
        { u"that is", u"that's" },
        { u"let us", u"let's" },
        { u"we will", u"we'll" },
        { u"you will", u"you'll" },
        { u"they will", u"they'll" },
    });
    return table;
}

const PhraseTable& professionalWords()
{
    static const PhraseTable table(Pairs {
        { u"gonna", u"going to" },
        { u"wanna", u"want to" },
        { u"gotta", u"have to" },
        { u"kinda", u"somewhat" },
        { u"sorta", u"somewhat" },
        { u"yeah", u"yes" },
        { u"yep", u"yes" },
        { u"yup", u"yes" },
        { u"nope", u"no" },
        { u"nah", u"no" },
        { u"hey", u"hello" },
        { u"guys", u"everyone" },
        { u"awesome", u"excellent" },
        { u"ok", u"okay" },
        { u"thanks", u"thank you" },
        { u"you know", u"" },
        { u"i mean", u"" },
        { u"basically", u"" },
        { u"literally", u"" },
    });
    return table;
}

const PhraseTable& hedges()
{
    static const PhraseTable table(Pairs {
        { u"i think", u"" },
        { u"i guess", u"" },
        { u"i feel like", u"" },
        { u"i suppose", u"" },
        { u"maybe", u"" },
        { u"perhaps", u"" },
        { u"possibly", u"" },
        { u"just", u"" },
        { u"kind of", u"" },
        { u"sort of", u"" },
        { u"kinda", u"" },
        { u"sorta", u"" },
        { u"hopefully", u"" },
        { u"if possible", u"" },
        { u"if you don't mind", u"" },
        { u"if that's okay", u"" },
        { u"if that's ok", u"" },
    });
    return table;
}

// Only at the start of a sentence: "how can you say that" is not a request.
const PhraseTable& firmRequests()
{
    static const PhraseTable table(
        Pairs {
            { u"could you please", u"please" },
            { u"can you please", u"please" },
            { u"would you please", u"please" },
            { u"would you mind", u"please" },
            { u"could you", u"please" },
            { u"can you", u"please" },
            { u"would you", u"please" },
            { u"i would like you to", u"I need you to" },
            { u"i'd like you to", u"I need you to" },
        },
        true);
    return table;
}

const PhraseTable& firmWords()
{
    static const PhraseTable table(Pairs { { u"try to", u"" }, { u"please try to", u"please" } });
    return table;
}

const PhraseTable& supportiveWords()
{
    static const PhraseTable table(Pairs {
        { u"you must", u"it would help to" },
        { u"you have to", u"it would help to" },
        { u"you should", u"you could" },
        { u"wrong", u"not quite right" },
        { u"failed", u"didn't work out" },
        { u"failure", u"setback" },
        { u"problem", u"challenge" },
        { u"problems", u"challenges" },
        { u"mistake", u"slip" },
        { u"mistakes", u"slips" },
    });
    return table;
}

const PhraseTable& conciseWords()
{
    static const PhraseTable table(Pairs {
        { u"in order to", u"to" },
        { u"due to the fact that", u"because" },
        { u"in spite of the fact that", u"although" },
        { u"at this point in time", u"now" },
        { u"at the present time", u"now" },
        { u"in the event that", u"if" },
        { u"for the purpose of", u"for" },
        { u"with regard to", u"about" },
        { u"with regards to", u"about" },
        { u"a large number of", u"many" },
        { u"is able to", u"can" },
        { u"are able to", u"can" },
        { u"please note that", u"" },
        { u"it is important to note that", u"" },
        { u"i just wanted to say that", u"" },
        { u"i wanted to say that", u"" },
        { u"really", u"" },
        { u"very", u"" },
        { u"actually", u"" },
        { u"basically", u"" },
        { u"literally", u"" },
        { u"totally", u"" },
        { u"quite", u"" },
        { u"simply", u"" },
        { u"honestly", u"" },
        { u"you know", u"" },
        { u"i mean", u"" },
    });
    return table;
}

// "like," as a verbal pause goes; "I like it" stays, because a comma has to follow.
void dropPauseLike(Chunks& chunks)
{
    Chunks out;
    out.reserve(chunks.size());
    for (qsizetype i = 0; i < qsizetype(chunks.size()); ++i) {
        Chunk& chunk = chunks[i];
        if (key(chunk.core) == u"like"_s && chunk.trail == u","_s && chunk.lead.isEmpty()) {
            absorbTrail(out, qsizetype(out.size()) - 1, chunk.trail);
            continue;
        }
        out.push_back(std::move(chunk));
    }
    chunks = std::move(out);
}

void replaceExclamations(Chunks& chunks, QChar by)
{
    for (Chunk& chunk : chunks)
        chunk.trail.replace(u'!', by);
}

// A request turned firm is no longer a question: "please send it?" becomes "please send it.".
void questionsAfterPleaseBecomeStatements(Chunks& chunks)
{
    bool pleaseInSentence = false;
    for (Chunk& chunk : chunks) {
        if (key(chunk.core) == u"please"_s)
            pleaseInSentence = true;
        if (endsSentence(chunk.trail)) {
            if (pleaseInSentence)
                chunk.trail.replace(u'?', u'.');
            pleaseInSentence = false;
        }
    }
}

QString exclaimLastSentence(QString text)
{
    if (text.endsWith(u'.') && !text.endsWith(u"..."_s))
        text[text.size() - 1] = u'!';
    return text;
}

QString funnyTagLine(const QString& text)
{
    static const QStringList lines {
        u"(No keyboards were harmed in the making of this message.)"_s,
        u"(Dictated out loud, so imagine it with dramatic hand gestures.)"_s,
        u"(Typed by voice, because my fingers asked for the day off.)"_s,
        u"(This message is 100% free-range, organic speech.)"_s,
        u"(Proofread by a robot that laughs at its own jokes.)"_s,
    };
    // Same text, same line: the rules stay deterministic.
    return lines.at(qsizetype(qHash(text, 0) % size_t(lines.size())));
}

QString appendSentence(const QString& text, const QString& sentence)
{
    if (text.isEmpty() || text.endsWith(sentence))
        return text;
    return text + u' ' + sentence;
}

Chunks baseCleanup(const QString& text)
{
    Chunks chunks = split(text);
    removeFillers(chunks);
    collapseRepeats(chunks);
    return chunks;
}

QString finish(Chunks chunks, const QStringList& dictionary)
{
    capitalise(chunks);
    // The dictionary comes last so that its spelling wins over sentence capitals.
    dictionaryTable(dictionary).apply(chunks);
    applyDictionaryPunctuated(chunks, dictionary);
    return endWithPunctuation(join(chunks));
}

} // namespace

QString RuleTextEngine::name() const
{
    return u"rules"_s;
}

RuleTextEngine::RuleTextEngine()
{
    m_pool.setObjectName(u"rule text engine"_s);
    m_pool.setMaxThreadCount(std::max(1, std::min(2, QThread::idealThreadCount())));
}

RuleTextEngine::~RuleTextEngine()
{
    m_pool.waitForDone();
}

void RuleTextEngine::process(const TextRequest& request, QObject* context, std::function<void(QString)> done)
{
    // `context` may be deleted while the text is worked on; only its own thread may look
    // at it, so the answer goes through m_home and the check happens there.
    QPointer<QObject> requester(context);
    QObject* home = &m_home;
    m_pool.start([request, requester, home, done = std::move(done)]() mutable {
        QString result = request.tone ? rewrite(request.text, *request.tone, request.dictionary)
                                      : cleanup(request.text, request.dictionary);
        QMetaObject::invokeMethod(
            home,
            [requester, done = std::move(done), result = std::move(result)] {
                if (requester)
                    done(result);
            },
            Qt::QueuedConnection);
    });
}

QString RuleTextEngine::cleanup(const QString& text, const QStringList& dictionary)
{
    return finish(baseCleanup(text), dictionary);
}

QString RuleTextEngine::rewrite(const QString& text, Tone tone, const QStringList& dictionary)
{
    Chunks chunks = baseCleanup(text);
    switch (tone) {
    case Tone::Professional: {
        dropPauseLike(chunks);
        expandContractions().apply(chunks);
        professionalWords().apply(chunks);
        replaceExclamations(chunks, u'.');
        return finish(std::move(chunks), dictionary);
    }
    case Tone::Friendly: {
        contract().apply(chunks);
        static const PhraseTable warm(
            Pairs { { u"hello", u"hi" }, { u"greetings", u"hi" }, { u"regards", u"cheers" } });
        warm.apply(chunks);
        return exclaimLastSentence(finish(std::move(chunks), dictionary));
    }
    case Tone::Funny: {
        contract().apply(chunks);
        const QString body = exclaimLastSentence(finish(std::move(chunks), dictionary));
        return appendSentence(body, funnyTagLine(body));
    }
    case Tone::Firm: {
        hedges().apply(chunks);
        firmRequests().apply(chunks);
        firmWords().apply(chunks);
        questionsAfterPleaseBecomeStatements(chunks);
        replaceExclamations(chunks, u'.');
        return finish(std::move(chunks), dictionary);
    }
    case Tone::Supportive: {
        contract().apply(chunks);
        supportiveWords().apply(chunks);
        return appendSentence(finish(std::move(chunks), dictionary), u"I'm here to help if you need anything."_s);
    }
    case Tone::Concise: {
        dropPauseLike(chunks);
        conciseWords().apply(chunks);
        hedges().apply(chunks);
        return finish(std::move(chunks), dictionary);
    }
    }
    return cleanup(text, dictionary);
}

QString RuleTextEngine::applyDictionary(const QString& text, const QStringList& dictionary)
{
    if (dictionary.isEmpty())
        return text;
    Chunks chunks = split(text);
    dictionaryTable(dictionary).apply(chunks);
    applyDictionaryPunctuated(chunks, dictionary);
    return join(chunks);
}
