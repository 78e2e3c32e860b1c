// dictora-scripted: the same program, except that the recogniser's words come
// from DICTORA_SCRIPTED_TRANSCRIPT once the model is prepared. For tests only;
// never installed.
#include "cli/Main.h"

int main(int argc, char **argv)
{
    return dictora::cli::dictoraMain(argc, argv, [](dictora::AccuracyModelManager &model) {
        return std::make_unique<dictora::ScriptedSpeechPort>(model);
    });
}
