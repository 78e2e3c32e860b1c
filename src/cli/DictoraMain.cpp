#include "cli/Main.h"

int main(int argc, char **argv)
{
    return dictora::cli::dictoraMain(argc, argv, [](dictora::AccuracyModelManager &model) {
        return std::make_unique<dictora::ModelSpeechPort>(model);
    });
}
