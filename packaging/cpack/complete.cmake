# Run by cpack on what it has installed, before it is packaged: what Debian wants of a package beside the files, and what
# makes two packages of the same commit the same.
cmake_policy(VERSION 3.22)
set(tree "${CPACK_TEMPORARY_DIRECTORY}")
set(debian "${CPACK_BUNDLE_SERVER_PACKAGING}/debian")

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(documents "${tree}/usr/share/doc/bundle-server")
file(MAKE_DIRECTORY "${documents}")
file(COPY "${debian}/copyright" "${debian}/changelog" DESTINATION "${documents}")
file(GLOB pages "${tree}/usr/share/man/man*/*[0-9]")
run(gzip --best --no-name --force "${documents}/changelog" ${pages})

run(chmod -R u=rwX,go=rX "${tree}/usr" "${tree}/etc" "${tree}/var")
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    run(find "${tree}" -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
endif()
