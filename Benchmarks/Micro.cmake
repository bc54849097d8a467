# What a request passes through, part by part. The parts are compiled as they ship. Google Benchmark is a shared
# library on most systems, so the core is linked as a file here, without its request for a static program.
add_executable(Micro MicroExchange.cpp MicroJSON.cpp MicroLines.cpp ../Tests/Support/ScriptedHost.cpp)
add_dependencies(Micro TidewellCore)
target_include_directories(Micro PRIVATE
    ${PROJECT_SOURCE_DIR}/Tests $<TARGET_PROPERTY:TidewellCore,INTERFACE_INCLUDE_DIRECTORIES>)
target_link_libraries(Micro PRIVATE
    $<TARGET_FILE:TidewellCore> benchmark::benchmark_main nlohmann_json::nlohmann_json Threads::Threads
    TidewellWarnings)
