#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QThreadPool>

namespace dictora {

// Runs `work` on the global pool and then `done(result)` on the owner's
// thread, unless the owner is gone by then.
template<typename Work, typename Done>
void runInBackground(QObject *owner, Work work, Done done)
{
    QPointer<QObject> guard(owner);
    QThreadPool::globalInstance()->start([guard, work = std::move(work), done = std::move(done)]() mutable {
        auto result = work();
        if (!guard)
            return;
        QMetaObject::invokeMethod(guard.data(), [guard, done = std::move(done), result = std::move(result)]() mutable {
            if (guard)
                done(std::move(result));
        }, Qt::QueuedConnection);
    });
}

} // namespace dictora
