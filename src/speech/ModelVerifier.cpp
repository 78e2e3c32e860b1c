#include "speech/ModelVerifier.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

namespace dictora::ModelVerifier {

QString sha256Hex(const QString &path, const std::atomic_bool *cancel)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray buffer(kHashChunkBytes, Qt::Uninitialized);
    for (;;) {
        if (cancel && cancel->load())
            return {};
        const qint64 n = file.read(buffer.data(), buffer.size());
        if (n < 0)
            return {};
        if (n == 0)
            break;
        hash.addData(QByteArrayView(buffer.constData(), n));
    }
    return QString::fromLatin1(hash.result().toHex());
}

bool isValidModel(const QString &path, const AccuracyModelContract &contract, const std::atomic_bool *cancel)
{
    const QFileInfo info(path);
    if (!info.isFile() || info.size() != contract.bytes)
        return false;
    const QString actual = sha256Hex(path, cancel);
    return !actual.isEmpty() && actual == contract.sha256;
}

} // namespace dictora::ModelVerifier
