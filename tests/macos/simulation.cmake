# Read at the end of project() when tests/macos/run-simulation builds: the tests' precompiled header serves the
# product's files too, which takes a third of the time. The other builds of these files do without.
function(orvantis_share_precompiled_header)
    foreach(target IN ITEMS
            orvantis_capture orvantis_recorder orvantis_support orvantis_testsupport simulatedrecorder)
        target_precompile_headers(${target} REUSE_FROM orvantis_testpch)
    endforeach()
endfunction()
cmake_language(DEFER CALL orvantis_share_precompiled_header)
