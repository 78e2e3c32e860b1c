#include "speech/AccuracyModelContract.h"

#include "core/DataPaths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace dictora {

AccuracyModelContract AccuracyModelContract::product()
{
    return {QStringLiteral("ggml-large-v3-turbo-q5_0.bin"), 574041195,
        QStringLiteral("394221709cd5ad1f40c46e6031ca61bce88931e6e088c188294c6d5a55ffa7e2"),
        QUrl(QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main/ggml-large-v3-turbo-q5_0.bin"))};
}

AccuracyModelContract AccuracyModelContract::fromJsonFile(const QString &path)
{
    const auto fail = [&path](const QString &why) {
        return AccuracyModelContractError(QStringLiteral("The model contract %1 is unusable: %2").arg(path, why));
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw fail(file.errorString());
    if (file.size() > 64 * 1024)
        throw fail(QStringLiteral("%1 bytes is far too large for four fields").arg(file.size()));
    return fromJson(file.readAll(), path);
}

AccuracyModelContract AccuracyModelContract::fromJson(const QByteArray &json, const QString &path)
{
    const auto fail = [&path](const QString &why) {
        return AccuracyModelContractError(QStringLiteral("The model contract %1 is unusable: %2").arg(path, why));
    };
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw fail(QStringLiteral("not JSON (%1 at offset %2)").arg(parseError.errorString()).arg(parseError.offset));
    if (!document.isObject())
        throw fail(QStringLiteral("expected a JSON object"));
    const QJsonObject object = document.object();

    AccuracyModelContract contract;
    const QJsonValue name = object.value(QStringLiteral("fileName"));
    contract.fileName = name.toString();
    if (!name.isString() || contract.fileName.isEmpty() || contract.fileName.contains(QLatin1Char('/'))
        || contract.fileName == QStringLiteral(".") || contract.fileName == QStringLiteral(".."))
        throw fail(QStringLiteral("\"fileName\" must be a plain file name"));

    const QJsonValue bytes = object.value(QStringLiteral("bytes"));
    const double size = bytes.toDouble(-1);
    // The range is checked before the conversion, which is undefined for 1e300.
    if (!bytes.isDouble() || !(size >= 1 && size <= 9.0e15) || size != double(qint64(size)))
        throw fail(QStringLiteral("\"bytes\" must be a positive whole number"));
    contract.bytes = qint64(size);

    const QJsonValue hash = object.value(QStringLiteral("sha256"));
    contract.sha256 = hash.toString();
    // \z, not $: "$" also matches before a final line feed.
    static const QRegularExpression hex(QStringLiteral("\\A[0-9a-f]{64}\\z"));
    if (!hash.isString() || !hex.match(contract.sha256).hasMatch())
        throw fail(QStringLiteral("\"sha256\" must be 64 lower-case hexadecimal digits"));

    const QJsonValue url = object.value(QStringLiteral("url"));
    contract.url = QUrl(url.toString(), QUrl::StrictMode);
    const QString scheme = contract.url.scheme();
    if (!url.isString() || !contract.url.isValid() || contract.url.host().isEmpty()
        || (scheme != QStringLiteral("http") && scheme != QStringLiteral("https")))
        throw fail(QStringLiteral("\"url\" must be an http or https address"));
    return contract;
}

AccuracyModelContract AccuracyModelContract::current()
{
    const QString path = qEnvironmentVariable(kEnvironmentVariable);
    if (path.isEmpty())
        return product();
    return fromJsonFile(path);
}

QString AccuracyModelContract::installedPath() const
{
    return QDir(DataPaths::modelsDirectory()).filePath(fileName);
}

QString AccuracyModelContract::developmentCopyPath() const
{
    return QDir(QDir::homePath()).filePath(QStringLiteral("Documents/global_assets/global_local_models/") + fileName);
}

} // namespace dictora
