// dictora-scripted: the same program, except that the recogniser's words come
// from DICTORA_SCRIPTED_TRANSCRIPT once the model is prepared. For tests only;
// never installed, and nothing of it is in the dictora binary.
#include "cli/Main.h"

#include <QMetaObject>

namespace {

class ScriptedSpeechPort : public dictora::ModelSpeechPort {
public:
    using ModelSpeechPort::ModelSpeechPort;
    void transcribe(std::vector<float>, Done done) override
    {
        const QString text = qEnvironmentVariable("DICTORA_SCRIPTED_TRANSCRIPT");
        QMetaObject::invokeMethod(this, [text, done = std::move(done)] { done(Result{text, 0, {}}, QString()); },
            Qt::QueuedConnection);
    }
    // The stream still runs the real recogniser while recording; only its words are replaced.
    void finishStream(Done done) override
    {
        cancelStream();
        transcribe({}, std::move(done));
    }
};

} // namespace

int main(int argc, char **argv)
{
    return dictora::cli::dictoraMain(argc, argv, [](dictora::AccuracyModelManager &model) {
        return std::make_unique<ScriptedSpeechPort>(model);
    });
}
