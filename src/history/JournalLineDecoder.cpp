#include "history/JournalLineDecoder.h"

#include <array>
#include <cstdint>

namespace dictora::JournalLineDecoder {

namespace {

// The record's keys in the order the journal writes them (ascending).
enum Key {
    earsDuration,
    error,
    finalizationDuration,
    id,
    language,
    outcome,
    pasteDispatchDuration,
    recordingDuration,
    recordingEndedAt,
    recordingStartedAt,
    savedAt,
    targetApplication,
    totalDuration,
    transcript,
    transcriptionEngine,
    keyCount
};

constexpr std::array<std::string_view, keyCount> kKeys{"earsDurationMilliseconds", "error",
    "finalizationDurationMilliseconds", "id", "language", "outcome", "pasteDispatchDurationMilliseconds",
    "recordingDurationMilliseconds", "recordingEndedAt", "recordingStartedAt", "savedAt", "targetApplication",
    "totalDurationMilliseconds", "transcript", "transcriptionEngine"};

constexpr unsigned bit(Key k) { return 1u << k; }
constexpr unsigned kRequired = bit(finalizationDuration) | bit(id) | bit(outcome) | bit(pasteDispatchDuration)
    | bit(recordingDuration) | bit(recordingEndedAt) | bit(recordingStartedAt) | bit(savedAt) | bit(totalDuration)
    | bit(transcript);

// Well-formed UTF-8 only: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isWellFormedUtf8(const unsigned char *s, const unsigned char *end)
{
    while (s < end) {
        const unsigned char c = *s;
        if (c < 0x80) {
            ++s;
            continue;
        }
        int more;
        unsigned char lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            more = 1;
        } else if (c >= 0xE0 && c <= 0xEF) {
            more = 2;
            if (c == 0xE0)
                lo = 0xA0;
            else if (c == 0xED)
                hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            more = 3;
            if (c == 0xF0)
                lo = 0x90;
            else if (c == 0xF4)
                hi = 0x8F;
        } else {
            return false;
        }
        if (end - s <= more)
            return false;
        if (s[1] < lo || s[1] > hi)
            return false;
        for (int i = 2; i <= more; ++i)
            if ((s[i] & 0xC0) != 0x80)
                return false;
        s += more + 1;
    }
    return true;
}

void appendUtf8(QByteArray &out, char32_t code)
{
    if (code < 0x80) {
        out.append(char(code));
    } else if (code < 0x800) {
        out.append(char(0xC0 | (code >> 6)));
        out.append(char(0x80 | (code & 0x3F)));
    } else {
        out.append(char(0xE0 | (code >> 12)));
        out.append(char(0x80 | ((code >> 6) & 0x3F)));
        out.append(char(0x80 | (code & 0x3F)));
    }
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

class Reader {
public:
    explicit Reader(QByteArrayView bytes)
        : m_p(reinterpret_cast<const unsigned char *>(bytes.data())), m_end(m_p + bytes.size())
    {
    }

    bool atEnd() const { return m_p == m_end; }

    bool eat(char c)
    {
        if (m_p < m_end && *m_p == static_cast<unsigned char>(c)) {
            ++m_p;
            return true;
        }
        return false;
    }

    // "name": — keys are plain ASCII, so an escape is not ours.
    std::optional<std::string_view> key()
    {
        if (!eat('"'))
            return std::nullopt;
        const unsigned char *start = m_p;
        while (m_p < m_end && *m_p != '"') {
            if (*m_p == '\\' || *m_p < 0x20)
                return std::nullopt;
            ++m_p;
        }
        if (m_p == m_end)
            return std::nullopt;
        const std::string_view name(reinterpret_cast<const char *>(start), size_t(m_p - start));
        ++m_p;
        if (!eat(':'))
            return std::nullopt;
        return name;
    }

    // -?(0|[1-9][0-9]*) of at most 15 digits, so the double the general
    // decoder goes through holds it exactly. Fractions and exponents are not ours.
    std::optional<std::int64_t> integer()
    {
        const bool negative = eat('-');
        if (m_p == m_end)
            return std::nullopt;
        std::int64_t value = 0;
        if (*m_p == '0') {
            ++m_p;
            if (negative)
                return std::nullopt;
        } else if (*m_p >= '1' && *m_p <= '9') {
            int digits = 0;
            while (m_p < m_end && *m_p >= '0' && *m_p <= '9') {
                if (++digits > 15)
                    return std::nullopt;
                value = value * 10 + (*m_p - '0');
                ++m_p;
            }
        } else {
            return std::nullopt;
        }
        if (m_p < m_end && (*m_p == '.' || *m_p == 'e' || *m_p == 'E'))
            return std::nullopt;
        return negative ? -value : value;
    }

    std::optional<QString> string()
    {
        if (!eat('"'))
            return std::nullopt;
        const unsigned char *start = m_p;
        bool ascii = true;
        while (m_p < m_end) {
            const unsigned char c = *m_p;
            if (c == '"') {
                const auto size = qsizetype(m_p - start);
                ++m_p;
                if (ascii)
                    return QString::fromLatin1(reinterpret_cast<const char *>(start), size);
                if (!isWellFormedUtf8(start, m_p - 1))
                    return std::nullopt;
                return QString::fromUtf8(reinterpret_cast<const char *>(start), size);
            }
            if (c == '\\')
                return escapedString(start);
            if (c < 0x20)
                return std::nullopt;
            if (c >= 0x80)
                ascii = false;
            ++m_p;
        }
        return std::nullopt;
    }

private:
    // The rest of a string that holds escapes, from its start.
    std::optional<QString> escapedString(const unsigned char *start)
    {
        QByteArray bytes(reinterpret_cast<const char *>(start), qsizetype(m_p - start));
        while (m_p < m_end) {
            const unsigned char c = *m_p++;
            if (c == '"') {
                const auto *data = reinterpret_cast<const unsigned char *>(bytes.constData());
                if (!isWellFormedUtf8(data, data + bytes.size()))
                    return std::nullopt;
                return QString::fromUtf8(bytes);
            }
            if (c < 0x20)
                return std::nullopt;
            if (c != '\\') {
                bytes.append(char(c));
                continue;
            }
            if (m_p == m_end)
                return std::nullopt;
            switch (*m_p++) {
            case '"': bytes.append('"'); break;
            case '\\': bytes.append('\\'); break;
            case '/': bytes.append('/'); break;
            case 'b': bytes.append('\b'); break;
            case 'f': bytes.append('\f'); break;
            case 'n': bytes.append('\n'); break;
            case 'r': bytes.append('\r'); break;
            case 't': bytes.append('\t'); break;
            case 'u': {
                if (m_end - m_p < 4)
                    return std::nullopt;
                char32_t code = 0;
                for (int i = 0; i < 4; ++i) {
                    const int d = hexDigit(char(m_p[i]));
                    if (d < 0)
                        return std::nullopt;
                    code = (code << 4) | char32_t(d);
                }
                m_p += 4;
                // Surrogate pairs, and lone halves, are left to the general decoder.
                if (code >= 0xD800 && code <= 0xDFFF)
                    return std::nullopt;
                appendUtf8(bytes, code);
                break;
            }
            default:
                return std::nullopt;
            }
        }
        return std::nullopt;
    }

    const unsigned char *m_p;
    const unsigned char *m_end;
};

std::optional<TargetApplication> targetApplicationValue(Reader &in)
{
    if (!in.eat('{'))
        return std::nullopt;
    enum { bundle, name, pid, count };
    static constexpr std::array<std::string_view, count> keys{"bundleIdentifier", "name", "processIdentifier"};
    TargetApplication app;
    unsigned seen = 0;
    int next = 0;
    do {
        const auto key = in.key();
        if (!key)
            return std::nullopt;
        int index = next;
        while (index < count && keys[size_t(index)] != *key)
            ++index;
        if (index == count)
            return std::nullopt;
        next = index + 1;
        seen |= 1u << index;
        if (index == pid) {
            const auto value = in.integer();
            if (!value || *value < INT32_MIN || *value > INT32_MAX)
                return std::nullopt;
            app.processIdentifier = std::int32_t(*value);
        } else {
            auto value = in.string();
            if (!value)
                return std::nullopt;
            if (index == bundle)
                app.bundleIdentifier = std::move(*value);
            else
                app.name = std::move(*value);
        }
    } while (in.eat(','));
    if (!in.eat('}') || (seen & 0b110) != 0b110)
        return std::nullopt;
    return app;
}

} // namespace

std::optional<TranscriptRecord> decodeCanonical(QByteArrayView line)
{
    Reader in(line);
    if (!in.eat('{'))
        return std::nullopt;
    TranscriptRecord r;
    unsigned seen = 0;
    int next = 0;
    const auto integerInto = [&in](std::int64_t &field) {
        const auto value = in.integer();
        if (value)
            field = *value;
        return value.has_value();
    };
    const auto dateInto = [&in](QDateTime &field) {
        const auto value = in.integer();
        if (value)
            field = QDateTime::fromMSecsSinceEpoch(*value, Qt::UTC);
        return value.has_value();
    };
    do {
        const auto key = in.key();
        if (!key)
            return std::nullopt;
        int index = next;
        while (index < keyCount && kKeys[size_t(index)] != *key)
            ++index;
        if (index == keyCount)
            return std::nullopt; // unknown, repeated or out of order
        next = index + 1;
        seen |= 1u << index;
        bool ok = false;
        switch (Key(index)) {
        case earsDuration: {
            std::int64_t value = 0;
            ok = integerInto(value);
            r.earsDurationMilliseconds = value;
            break;
        }
        case finalizationDuration: ok = integerInto(r.finalizationDurationMilliseconds); break;
        case pasteDispatchDuration: ok = integerInto(r.pasteDispatchDurationMilliseconds); break;
        case recordingDuration: ok = integerInto(r.recordingDurationMilliseconds); break;
        case totalDuration: ok = integerInto(r.totalDurationMilliseconds); break;
        case recordingEndedAt: ok = dateInto(r.recordingEndedAt); break;
        case recordingStartedAt: ok = dateInto(r.recordingStartedAt); break;
        case savedAt: ok = dateInto(r.savedAt); break;
        case error:
        case language:
        case transcript:
        case transcriptionEngine: {
            auto value = in.string();
            ok = value.has_value();
            if (!ok)
                break;
            if (index == transcript)
                r.transcript = std::move(*value);
            else if (index == error)
                r.error = std::move(*value);
            else if (index == language)
                r.language = std::move(*value);
            else
                r.transcriptionEngine = std::move(*value);
            break;
        }
        case id: {
            const auto value = in.string();
            if (!value || value->size() != 36)
                break;
            r.id = QUuid::fromString(*value);
            ok = !r.id.isNull();
            break;
        }
        case outcome: {
            const auto value = in.string();
            const auto parsed = value ? transcriptOutcomeFromRaw(*value) : std::nullopt;
            ok = parsed.has_value();
            if (ok)
                r.outcome = *parsed;
            break;
        }
        case targetApplication: {
            auto app = targetApplicationValue(in);
            ok = app.has_value();
            r.targetApplication = std::move(app);
            break;
        }
        case keyCount: break;
        }
        if (!ok)
            return std::nullopt;
    } while (in.eat(','));
    if (!in.eat('}') || !in.atEnd() || (seen & kRequired) != kRequired)
        return std::nullopt;
    return r;
}

std::optional<TranscriptRecord> decode(QByteArrayView line)
{
    if (auto record = decodeCanonical(line))
        return record;
    return TranscriptRecord::fromJson(QByteArray::fromRawData(line.data(), line.size()));
}

} // namespace dictora::JournalLineDecoder
