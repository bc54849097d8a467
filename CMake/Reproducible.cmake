# Reproducible.cmake: the same source and compiler give the same bytes, wherever the folders lie.
#
# Paths are what a build could let slip into the program, by __FILE__ or debug information. Debug builds keep them,
# because a debugger finds the sources by them, and coverage too. The date comes from SOURCE_DATE_EPOCH alone, which
# the packaging tools follow; Scripts/package sets it. Tests/Packages/run builds twice and compares.
add_compile_options(
    "$<$<CONFIG:Release,MinSizeRel>:-ffile-prefix-map=${PROJECT_BINARY_DIR}/=build/>"
    "$<$<CONFIG:Release,MinSizeRel>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=>")
