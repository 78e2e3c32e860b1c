#pragma once

#include <QFuture>
#include <QObject>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <utility>

namespace dictora {

// The one way this program runs work off the GUI thread: `work` on the
// global pool, then `done(result)` on `context`'s thread. Nothing is
// delivered once `context` is gone. `work` must not throw: catch inside it
// and hand on errorMessage(std::current_exception()). The returned future is
// the work's: an owner whose work uses its members waits for it as it goes.
template<typename Work, typename Done>
auto runElsewhere(QObject *context, Work &&work, Done &&done)
{
    auto future = QtConcurrent::run(std::forward<Work>(work));
    future.then(context, std::forward<Done>(done));
    return future;
}

// The same on a pool of the caller's own, for work the caller must be able
// to wait for when it goes (QThreadPool::waitForDone).
template<typename Work, typename Done>
void runElsewhere(QThreadPool *pool, QObject *context, Work &&work, Done &&done)
{
    QtConcurrent::run(pool, std::forward<Work>(work)).then(context, std::forward<Done>(done));
}

// Fire and forget, for work whose result nobody waits for.
template<typename Work>
void runElsewhere(Work &&work)
{
    static_cast<void>(QtConcurrent::run(std::forward<Work>(work)));
}

// Continues a future that some service handed out on `context`'s thread;
// `done` receives the finished future (result() rethrows its error).
template<typename T, typename Done>
void whenReady(QFuture<T> future, QObject *context, Done &&done)
{
    future.then(context, [done = std::forward<Done>(done)](QFuture<T> finished) mutable { done(finished); });
}

} // namespace dictora
