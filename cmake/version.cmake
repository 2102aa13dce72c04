# Run at each build. Writes the source file with TOOL_VERSION, but only if it has changed.
#
# usage: cmake -DSOURCE=DIR -DOUTPUT=FILE -DVERSION=V -DFRAMEWORK=TEXT [-DCOMMIT=HASH] -P version.cmake
cmake_minimum_required(VERSION 3.22)

# The first twelve digits of the sources' commit, with "+changes" if the sources differ from it.
function(find_commit variable)
    # "git archive" writes the commit into this file. In a work tree the file has a placeholder.
    file(STRINGS "${SOURCE}/cmake/commit" archived LIMIT_COUNT 1)
    if(archived MATCHES "^[0-9a-f]+$")
        string(SUBSTRING "${archived}" 0 12 commit)
        set(${variable} ${commit} PARENT_SCOPE)
        return()
    endif()
    set(${variable} unknown PARENT_SCOPE)
    # Also asks for the path from the work tree's top, because the sources may be below another project's work tree.
    execute_process(
        COMMAND git -C "${SOURCE}" rev-parse --show-cdup --short=12 HEAD
        OUTPUT_VARIABLE said
        ERROR_QUIET
        RESULT_VARIABLE failed
    )
    if(failed OR NOT said MATCHES "^\n([0-9a-f]+)\n$")
        return()
    endif()
    set(commit ${CMAKE_MATCH_1})
    execute_process(
        COMMAND git --no-optional-locks -C "${SOURCE}" status --porcelain --untracked-files=no OUTPUT_VARIABLE changes
    )
    if(changes)
        string(APPEND commit "+changes")
    endif()
    set(${variable} ${commit} PARENT_SCOPE)
endfunction()

if(NOT COMMIT)
    find_commit(COMMIT)
endif()
file(
    CONFIGURE
    OUTPUT "${OUTPUT}"
    CONTENT "#include \"tools/version.h\"

const char TOOL_VERSION[] = \"${VERSION}, commit ${COMMIT}, ${FRAMEWORK}\";
"
)
