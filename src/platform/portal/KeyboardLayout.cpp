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

QString firstOf(const QString &list)
{
    return list.split(QLatin1Char(','), Qt::KeepEmptyParts).value(0).trimmed();
}

LayoutName fromKde()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/kxkbrc");
    if (!QFile::exists(path))
        return {};
    QSettings kxkbrc(path, QSettings::IniFormat);
    kxkbrc.beginGroup(QStringLiteral("Layout"));
    // QSettings reads "de,us" as a list.
    const QVariant layouts = kxkbrc.value(QStringLiteral("LayoutList"));
    const QVariant variants = kxkbrc.value(QStringLiteral("VariantList"));
    const auto first = [](const QVariant &v) {
        return v.typeId() == QMetaType::QStringList ? v.toStringList().value(0).trimmed() : firstOf(v.toString());
    };
    return {first(layouts), first(variants)};
}

LayoutName fromGnome()
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
    const QRegularExpressionMatch m = xkb.match(QString::fromUtf8(process.readAllStandardOutput()));
    return m.hasMatch() ? LayoutName{m.captured(1), m.captured(2)} : LayoutName{};
}

LayoutName fromSystem()
{
    QFile file(QStringLiteral("/etc/default/keyboard"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    LayoutName name;
    static const QRegularExpression line(QStringLiteral("^\\s*(XKBLAYOUT|XKBVARIANT)=\"?([^\"\\n]*)\"?"),
        QRegularExpression::MultilineOption);
    for (auto it = line.globalMatch(QString::fromUtf8(file.readAll())); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        (m.captured(1) == QLatin1String("XKBLAYOUT") ? name.layout : name.variant) = firstOf(m.captured(2));
    }
    return name;
}

} // namespace

LayoutName activeLayout()
{
    const QString env = qEnvironmentVariable("XKB_DEFAULT_LAYOUT");
    if (!env.isEmpty())
        return {firstOf(env), firstOf(qEnvironmentVariable("XKB_DEFAULT_VARIANT"))};
    for (LayoutName (*source)() : {&fromKde, &fromGnome, &fromSystem}) {
        const LayoutName name = source();
        if (!name.layout.isEmpty())
            return name;
    }
    return {};
}

int evdevCodeForV(const LayoutName &layout)
{
    if (layout.layout.isEmpty())
        return Evdev::v;
    const std::unique_ptr<xkb_context, decltype(&xkb_context_unref)> context(
        xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES), &xkb_context_unref);
    if (!context)
        return Evdev::v;
    xkb_context_set_log_level(context.get(), XKB_LOG_LEVEL_CRITICAL);
    const QByteArray layoutName = layout.layout.toUtf8(), variantName = layout.variant.toUtf8();
    xkb_rule_names names{};
    names.layout = layoutName.constData();
    names.variant = variantName.constData();
    const std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)> keymap(
        xkb_keymap_new_from_names(context.get(), &names, XKB_KEYMAP_COMPILE_NO_FLAGS), &xkb_keymap_unref);
    if (!keymap)
        return Evdev::v;
    // Lowest keycode first, so the main block wins over any duplicate.
    for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap.get()); key <= xkb_keymap_max_keycode(keymap.get()); ++key) {
        const xkb_keysym_t *syms = nullptr;
        const int count = xkb_keymap_key_get_syms_by_level(keymap.get(), key, 0, 0, &syms);
        for (int i = 0; i < count; ++i) {
            if (syms[i] == XKB_KEY_v && key >= 8)
                return static_cast<int>(key) - 8;
        }
    }
    return Evdev::v;
}

int evdevCodeForV()
{
    return evdevCodeForV(activeLayout());
}

} // namespace dictora::portal
