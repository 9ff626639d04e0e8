# The fuzz targets: name, source, and the library under test if it is not the module. Each has its corpus in
# corpus/<name>.
set(FUZZ_TARGETS
  agent_config:AgentConfigFuzz.cpp:SorvexSettings
  auto_creation_file:AutoCreationFileFuzz.cpp
  base64:Base64Fuzz.cpp
  configserver_https:ConfigServerHttpsFuzz.cpp:ConfigServerRequests
  configserver_request:ConfigServerRequestFuzz.cpp:ConfigServerRequests
  environment_block:EnvironmentBlockFuzz.cpp
  format_text:FormatTextFuzz.cpp
  install_file:InstallFileFuzz.cpp
  install_lines:InstallLinesFuzz.cpp
  mismatch_message:MismatchMessageFuzz.cpp
  positions:PositionsFuzz.cpp:SorvexCollect
  response_headers:ResponseHeadersFuzz.cpp
  utf8:Utf8Fuzz.cpp
  wire_conversation_v1:WireConversationV1Fuzz.cpp
  wire_conversation_v2:WireConversationV2Fuzz.cpp
  wire_fields:WireFieldsFuzz.cpp)
set(FUZZ_DIRECTORY "${CMAKE_CURRENT_LIST_DIR}")

# sorvex_add_fuzz_programs(PREFIX SETTINGS extra libraries...): one program per target; stores their names in
# FUZZ_PROGRAMS.
function(sorvex_add_fuzz_programs prefix settings)
  set(programs)
  foreach(entry IN LISTS FUZZ_TARGETS)
    string(REPLACE ":" ";" entry "${entry}")
    list(GET entry 0 name)
    list(GET entry 1 source)
    list(APPEND entry CommunicationAPIObjects)
    list(GET entry 2 library)
    set(program ${prefix}${name})
    add_executable(${program} "${FUZZ_DIRECTORY}/${source}")
    target_include_directories(${program} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${program} PRIVATE ${library} ${settings} ${ARGN})
    list(APPEND programs ${program})
  endforeach()
  set(FUZZ_PROGRAMS ${programs} PARENT_SCOPE)
endfunction()
