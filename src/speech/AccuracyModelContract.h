#pragma once

#include "core/Error.h"

#include <QString>
#include <QUrl>

namespace dictora {

// The one model file recognition needs: its name, exact size, SHA-256 and
// where it is fetched from.
struct AccuracyModelContract {
    static constexpr const char *kEnvironmentVariable = "DICTORA_MODEL_CONTRACT";

    QString fileName;
    qint64 bytes = 0;
    QString sha256; // lower-case hex
    QUrl url;

    QString partialFileName() const { return fileName + QStringLiteral(".partial"); }

    // The product's model.
    static AccuracyModelContract product();
    // Reads {"fileName","bytes","sha256","url"}; throws AccuracyModelContractError
    // naming the file and what is wrong with it.
    static AccuracyModelContract fromJsonFile(const QString &path);
    // The same checks on the file's bytes; `origin` names it in the error.
    static AccuracyModelContract fromJson(const QByteArray &json, const QString &origin);
    // The file named by DICTORA_MODEL_CONTRACT when set, else the product's.
    static AccuracyModelContract current();

    // <data directory>/Models/<fileName>
    QString installedPath() const;
    // ~/Documents/global_assets/global_local_models/<fileName>
    QString developmentCopyPath() const;

    friend bool operator==(const AccuracyModelContract &, const AccuracyModelContract &) = default;
};

class AccuracyModelContractError : public Error {
public:
    using Error::Error;
};

} // namespace dictora
