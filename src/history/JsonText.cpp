#include "history/JsonText.h"

namespace dictora::JsonText {

void appendString(QByteArray &out, const QString &value)
{
    static constexpr char hex[] = "0123456789abcdef";
    const QByteArray utf8 = value.toUtf8();
    out.reserve(out.size() + utf8.size() + 2);
    out.append('"');
    for (const char c : utf8) {
        const auto u = static_cast<unsigned char>(c);
        switch (u) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        default:
            if (u < 0x20) {
                out.append("\\u00");
                out.append(hex[u >> 4]);
                out.append(hex[u & 0xf]);
            } else {
                out.append(c);
            }
        }
    }
    out.append('"');
}

QByteArray string(const QString &value)
{
    QByteArray out;
    appendString(out, value);
    return out;
}

} // namespace dictora::JsonText
