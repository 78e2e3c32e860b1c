# cmake -DPRODUCTION=<dictora> -DSCRIPTED=<dictora-scripted> -P CheckNoTestRecogniser.cmake
# The scripted recogniser (and the variable it reads) must be in the test
# stand-in only, never in the installed program.
set(marker "DICTORA_SCRIPTED_TRANSCRIPT")
file(STRINGS "${SCRIPTED}" in_scripted REGEX "${marker}")
if(NOT in_scripted)
  message(FATAL_ERROR "${SCRIPTED} lacks ${marker}: the check would prove nothing")
endif()
file(STRINGS "${PRODUCTION}" in_production REGEX "${marker}|ScriptedSpeechPort")
if(in_production)
  message(FATAL_ERROR "${PRODUCTION} contains the scripted recogniser: ${in_production}")
endif()
message(STATUS "${PRODUCTION}: no scripted recogniser")
