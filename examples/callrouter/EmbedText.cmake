# Writes OUTPUT, a C++ source that defines callrouter::kDefaultPlanText with the text of INPUT.
file(READ "${INPUT}" text)
string(FIND "${text}" ")plan\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} holds the text that ends a string here")
endif()
get_filename_component(name "${INPUT}" NAME)
file(WRITE "${OUTPUT}" "// Made from ${name}.
#include \"examples/callrouter/plan_file.h\"

namespace callrouter {

const std::string_view kDefaultPlanText = R\"plan(${text})plan\";

}  // namespace callrouter
")
