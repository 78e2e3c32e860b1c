#include "platform/portal/KeyboardLayout.h"

#include "platform/portal/EvdevKeystroke.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>

#include <xkbcommon/xkbcommon.h>

#include <memory>

namespace dictora::portal {

namespace {

QStringList listOf(const QVariant &value)
{
    QStringList items = value.typeId() == QMetaType::QStringList ? value.toStringList()
                                                                 : value.toString().split(QLatin1Char(','));
    for (QString &item : items)
        item = item.trimmed();
    return items;
}

QList<LayoutName> zipped(const QStringList &layouts, const QStringList &variants)
{
    QList<LayoutName> names;
    for (qsizetype i = 0; i < layouts.size(); ++i) {
        if (!layouts.at(i).isEmpty())
            names.append({layouts.at(i), variants.value(i)});
    }
    return names;
}

QList<LayoutName> fromKde()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/kxkbrc");
    if (!QFile::exists(path))
        return {};
    QSettings kxkbrc(path, QSettings::IniFormat);
    kxkbrc.beginGroup(QStringLiteral("Layout"));
    // QSettings reads "de,us" as a list.
    return zipped(listOf(kxkbrc.value(QStringLiteral("LayoutList"))), listOf(kxkbrc.value(QStringLiteral("VariantList"))));
}

QList<LayoutName> fromGnome()
{
    if (!qEnvironmentVariable("XDG_CURRENT_DESKTOP").contains(QLatin1String("GNOME"), Qt::CaseInsensitive))
        return {};
    const QString tool = QStandardPaths::findExecutable(QStringLiteral("gsettings"));
    if (tool.isEmpty())
        return {};
    QProcess process;
    process.start(tool, {QStringLiteral("get"), QStringLiteral("org.gnome.desktop.input-sources"), QStringLiteral("sources")});
    if (!process.waitForFinished(3000))
        return {};
    // [('xkb', 'de+nodeadkeys'), ('ibus', 'mozc')]
    static const QRegularExpression xkb(QStringLiteral("\\('xkb',\\s*'([^'+]*)(?:\\+([^']*))?'\\)"));
    QList<LayoutName> names;
    for (auto it = xkb.globalMatch(QString::fromUtf8(process.readAllStandardOutput())); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        names.append({m.captured(1), m.captured(2)});
    }
    return names;
}

QList<LayoutName> fromSystem()
{
    QFile file(QStringLiteral("/etc/default/keyboard"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList layouts, variants;
    static const QRegularExpression line(QStringLiteral("^\\s*(XKBLAYOUT|XKBVARIANT)=\"?([^\"\\n]*)\"?"),
        QRegularExpression::MultilineOption);
    for (auto it = line.globalMatch(QString::fromUtf8(file.readAll())); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        (m.captured(1) == QLatin1String("XKBLAYOUT") ? layouts : variants) = listOf(m.captured(2));
    }
    return zipped(layouts, variants);
}

using Keymap = std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)>;

Keymap keymapFor(const LayoutName &layout)
{
    Keymap none(nullptr, &xkb_keymap_unref);
    if (layout.layout.isEmpty())
        return none;
    const std::unique_ptr<xkb_context, decltype(&xkb_context_unref)> context(
        xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES), &xkb_context_unref);
    if (!context)
        return none;
    xkb_context_set_log_level(context.get(), XKB_LOG_LEVEL_CRITICAL);
    const QByteArray layoutName = layout.layout.toUtf8(), variantName = layout.variant.toUtf8();
    xkb_rule_names names{};
    names.layout = layoutName.constData();
    names.variant = variantName.constData();
    return Keymap(xkb_keymap_new_from_names(context.get(), &names, XKB_KEYMAP_COMPILE_NO_FLAGS), &xkb_keymap_unref);
}

// The lowest evdev code whose base level types `keysym`; -1 when none does.
int evdevCodeTyping(xkb_keymap *keymap, xkb_keysym_t keysym)
{
    // Lowest keycode first, so the main block wins over any duplicate.
    for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap); key <= xkb_keymap_max_keycode(keymap); ++key) {
        const xkb_keysym_t *syms = nullptr;
        const int count = xkb_keymap_key_get_syms_by_level(keymap, key, 0, 0, &syms);
        for (int i = 0; i < count; ++i) {
            if (syms[i] == keysym && key >= 8)
                return static_cast<int>(key) - 8;
        }
    }
    return -1;
}

} // namespace

QList<LayoutName> configuredLayouts()
{
    const QString env = qEnvironmentVariable("XKB_DEFAULT_LAYOUT");
    if (!env.isEmpty())
        return zipped(listOf(env), listOf(qEnvironmentVariable("XKB_DEFAULT_VARIANT")));
    for (QList<LayoutName> (*source)() : {&fromKde, &fromGnome, &fromSystem}) {
        const QList<LayoutName> names = source();
        if (!names.isEmpty())
            return names;
    }
    return {};
}

LayoutName activeLayout()
{
    return configuredLayouts().value(0);
}

QString keysymNameOn(int evdevCode, const LayoutName &layout)
{
    const Keymap keymap = keymapFor(layout);
    if (!keymap)
        return {};
    const xkb_keysym_t *syms = nullptr;
    if (xkb_keymap_key_get_syms_by_level(keymap.get(), static_cast<xkb_keycode_t>(evdevCode + 8), 0, 0, &syms) < 1)
        return {};
    char name[64];
    return xkb_keysym_get_name(syms[0], name, sizeof name) > 0 ? QString::fromLatin1(name) : QString();
}

bool typesLatinV(const LayoutName &layout)
{
    const Keymap keymap = keymapFor(layout);
    return !keymap || evdevCodeTyping(keymap.get(), XKB_KEY_v) >= 0;
}

int evdevCodeForV(const LayoutName &layout)
{
    const Keymap keymap = keymapFor(layout);
    const int code = keymap ? evdevCodeTyping(keymap.get(), XKB_KEY_v) : -1;
    return code >= 0 ? code : Evdev::v;
}

int evdevCodeForV()
{
    return evdevCodeForV(activeLayout());
}

} // namespace dictora::portal
