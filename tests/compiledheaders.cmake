# For builds that are made for their tests alone: the libraries get compiled headers, too, which saves a third of their
# time. Read at the end of project() as CMAKE_PROJECT_INCLUDE. The other builds do without, and so find includes that
# are missing.
function(orvantis_compile_headers)
    foreach(target IN ITEMS orvantis_capture orvantis_platform orvantis_recorder orvantis_testsupport)
        if(TARGET ${target})
            target_precompile_headers(${target} PRIVATE
                <QDebug> <QFile> <QImage> <QPointF> <QRectF> <QString> <QStringList>
                <algorithm> <cmath> <functional> <memory> <optional> <vector>)
        endif()
    endforeach()
endfunction()
cmake_language(DEFER CALL orvantis_compile_headers)
