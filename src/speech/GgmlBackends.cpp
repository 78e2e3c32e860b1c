#include "speech/GgmlBackends.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#ifdef DICTORA_GGML_BACKEND_DL
#include <ggml-backend.h>
#endif

#include <mutex>

namespace dictora {

namespace {

#ifdef DICTORA_GGML_BACKEND_DL
QString executableDirectory()
{
    // Works before (or without) a QCoreApplication, e.g. in a test's engine.
    const QFileInfo self(QStringLiteral("/proc/self/exe"));
    return QFileInfo(self.symLinkTarget()).absolutePath();
}

bool holdsCpuBackend(const QString &folder)
{
    return !QDir(folder).entryList({QStringLiteral("libggml-cpu*.so")}, QDir::Files).isEmpty();
}
#endif

} // namespace

QString loadGgmlBackends()
{
#ifdef DICTORA_GGML_BACKEND_DL
    static QString loadedFrom;
    static std::once_flag once;
    std::call_once(once, [] {
        const QString bin = executableDirectory();
        // The build tree keeps them beside the program, the package in its private folder.
        const QStringList candidates{bin, QDir::cleanPath(bin + QLatin1Char('/') + QStringLiteral(DICTORA_GGML_BACKEND_RELDIR))};
        for (const QString &folder : candidates) {
            if (!holdsCpuBackend(folder))
                continue;
            ggml_backend_load_all_from_path(QFile::encodeName(folder).constData());
            loadedFrom = folder;
            return;
        }
        ggml_backend_load_all(); // last resort: ggml's own search
    });
    return loadedFrom;
#else
    return {};
#endif
}

} // namespace dictora
