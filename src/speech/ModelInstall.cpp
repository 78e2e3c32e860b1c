#include "speech/ModelInstall.h"

#include "speech/ModelVerifier.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace dictora::ModelInstall {

Outcome installVerifiedCopy(const QString &source, const AccuracyModelContract &contract, const QString &destination)
{
    const auto refuse = [](QString why) { return Outcome{false, std::move(why)}; };
    const QFileInfo info(source);
    if (!info.exists())
        return refuse(QStringLiteral("%1 does not exist.").arg(source));
    if (!info.isFile())
        return refuse(QStringLiteral("%1 is not a regular file.").arg(source));
    if (info.size() != contract.bytes)
        return refuse(QStringLiteral("%1 is %2 bytes; the model %3 is exactly %4 bytes.")
                          .arg(source).arg(info.size()).arg(contract.fileName).arg(contract.bytes));

    QFile input(source);
    if (!input.open(QIODevice::ReadOnly))
        return refuse(QStringLiteral("Cannot read %1: %2.").arg(source, input.errorString()));

    // The file already in place: check it, copy nothing.
    if (QFileInfo(destination).exists() && info.canonicalFilePath() == QFileInfo(destination).canonicalFilePath()) {
        const QString actual = ModelVerifier::sha256Hex(source);
        if (actual != contract.sha256)
            return refuse(QStringLiteral("The installed %1 has SHA-256 %2, not %3.").arg(source, actual, contract.sha256));
        return {true, {}};
    }

    if (!QDir().mkpath(QFileInfo(destination).absolutePath()))
        return refuse(QStringLiteral("Cannot create the folder %1.").arg(QFileInfo(destination).absolutePath()));
    QSaveFile output(destination);
    if (!output.open(QIODevice::WriteOnly))
        return refuse(QStringLiteral("Cannot write %1: %2.").arg(destination, output.errorString()));

    // Hash what is copied, so the bytes installed are the bytes checked.
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray buffer(ModelVerifier::kHashChunkBytes, Qt::Uninitialized);
    qint64 copied = 0;
    for (;;) {
        const qint64 n = input.read(buffer.data(), buffer.size());
        if (n < 0)
            return refuse(QStringLiteral("Reading %1 failed: %2.").arg(source, input.errorString()));
        if (n == 0)
            break;
        hash.addData(QByteArrayView(buffer.constData(), n));
        if (output.write(buffer.constData(), n) != n)
            return refuse(QStringLiteral("Writing %1 failed: %2.").arg(destination, output.errorString()));
        copied += n;
    }
    if (copied != contract.bytes)
        return refuse(QStringLiteral("%1 changed while it was read (%2 of %3 bytes).").arg(source).arg(copied).arg(contract.bytes));
    const QString actual = QString::fromLatin1(hash.result().toHex());
    if (actual != contract.sha256)
        return refuse(QStringLiteral("%1 has SHA-256 %2; the model %3 has %4.").arg(source, actual, contract.fileName, contract.sha256));
    if (!output.commit()) // QSaveFile's destructor discards the copy on every early return above
        return refuse(QStringLiteral("Could not put %1 in place: %2.").arg(destination, output.errorString()));
    return {true, {}};
}

} // namespace dictora::ModelInstall
