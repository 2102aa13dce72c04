# Run at each build: writes the source that holds TOOL_VERSION, and leaves it alone when nothing has changed.
#
# usage: cmake -DSOURCE=DIR -DOUTPUT=FILE -DVERSION=V -DFRAMEWORK=TEXT [-DCOMMIT=HASH] -P version.cmake
cmake_minimum_required(VERSION 3.22)

# The first twelve digits of the commit that the sources are, "+changes" where they are not quite it.
function(find_commit variable)
    # "git archive" has written it into this file; in a work tree there is a place holder instead.
    file(STRINGS "${SOURCE}/cmake/commit" archived LIMIT_COUNT 1)
    if(archived MATCHES "^[0-9a-f]+$")
        string(SUBSTRING "${archived}" 0 12 commit)
        set(${variable} ${commit} PARENT_SCOPE)
        return()
    endif()
    set(${variable} unknown PARENT_SCOPE)
    # Asked for the way up to the top as well: the sources may lie somewhere below another project's work tree.
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
