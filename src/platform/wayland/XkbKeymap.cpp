#include "platform/wayland/XkbKeymap.h"

#include <xkbcommon/xkbcommon.h>

namespace dictora::wayland {

namespace {
std::unique_ptr<XkbKeymap> finish(std::unique_ptr<XkbKeymap> keymap, xkb_context *context, xkb_keymap *compiled,
                                  QString *why, const QString &what)
{
    if (!compiled) {
        xkb_context_unref(context);
        if (why)
            *why = QStringLiteral("The keyboard layout %1 could not be compiled.").arg(what);
        return nullptr;
    }
    return keymap;
}
} // namespace

std::unique_ptr<XkbKeymap> XkbKeymap::fromText(const QByteArray &text, QString *why)
{
    xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (!context) {
        if (why)
            *why = QStringLiteral("libxkbcommon could not start.");
        return nullptr;
    }
    // The compositor's text may carry a terminating NUL inside its size.
    QByteArray source = text;
    while (source.endsWith('\0'))
        source.chop(1);
    xkb_keymap *compiled = xkb_keymap_new_from_string(context, source.constData(), XKB_KEYMAP_FORMAT_TEXT_V1,
                                                      XKB_KEYMAP_COMPILE_NO_FLAGS);
    std::unique_ptr<XkbKeymap> keymap(new XkbKeymap);
    auto result = finish(std::move(keymap), context, compiled, why, QStringLiteral("the compositor sent"));
    if (result) {
        result->m_context = context;
        result->m_keymap = compiled;
        result->m_state = xkb_state_new(compiled);
    }
    return result;
}

std::unique_ptr<XkbKeymap> XkbKeymap::fromNames(const QString &layout, const QString &variant, QString *why)
{
    xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (!context) {
        if (why)
            *why = QStringLiteral("libxkbcommon could not start.");
        return nullptr;
    }
    const QByteArray layoutName = layout.toUtf8();
    const QByteArray variantName = variant.toUtf8();
    xkb_rule_names names{};
    names.layout = layout.isEmpty() ? nullptr : layoutName.constData();
    names.variant = variant.isEmpty() ? nullptr : variantName.constData();
    xkb_keymap *compiled = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
    std::unique_ptr<XkbKeymap> keymap(new XkbKeymap);
    auto result = finish(std::move(keymap), context, compiled, why,
                         QStringLiteral("\"%1\"").arg(layout.isEmpty() ? QStringLiteral("default") : layout));
    if (result) {
        result->m_context = context;
        result->m_keymap = compiled;
        result->m_state = xkb_state_new(compiled);
    }
    return result;
}

XkbKeymap::~XkbKeymap()
{
    if (m_state)
        xkb_state_unref(m_state);
    if (m_keymap)
        xkb_keymap_unref(m_keymap);
    if (m_context)
        xkb_context_unref(m_context);
}

QByteArray XkbKeymap::text() const
{
    char *text = xkb_keymap_get_as_string(m_keymap, XKB_KEYMAP_FORMAT_TEXT_V1);
    if (!text)
        return {};
    QByteArray result(text, qsizetype(qstrlen(text)) + 1);
    free(text);
    return result;
}

std::optional<quint32> XkbKeymap::evdevCodeFor(quint32 keysym) const
{
    const xkb_keycode_t min = xkb_keymap_min_keycode(m_keymap);
    const xkb_keycode_t max = xkb_keymap_max_keycode(m_keymap);
    for (xkb_keycode_t code = std::max<xkb_keycode_t>(min, 8); code <= max; ++code) {
        const xkb_keysym_t *syms = nullptr;
        const int count = xkb_keymap_key_get_syms_by_level(m_keymap, code, 0, 0, &syms);
        for (int i = 0; i < count; ++i) {
            if (syms[i] == keysym)
                return code - 8;
        }
    }
    return std::nullopt;
}

XkbKeymap::Modifiers XkbKeymap::updateKey(quint32 evdevCode, bool pressed)
{
    xkb_state_update_key(m_state, evdevCode + 8, pressed ? XKB_KEY_DOWN : XKB_KEY_UP);
    return {xkb_state_serialize_mods(m_state, XKB_STATE_MODS_DEPRESSED),
            xkb_state_serialize_mods(m_state, XKB_STATE_MODS_LATCHED),
            xkb_state_serialize_mods(m_state, XKB_STATE_MODS_LOCKED),
            xkb_state_serialize_layout(m_state, XKB_STATE_LAYOUT_EFFECTIVE)};
}

} // namespace dictora::wayland
