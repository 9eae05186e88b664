# Run by cpack after the install() rules have filled the staging directory
# and before the package is made: what a Debian package has and
# `cmake --install` does not do.
#   - manual pages compressed (gzip -9n: no name or time stamp inside, so the
#     same tree gives the same bytes);
#   - /usr/share/doc/<package>/copyright and changelog.Debian.gz, and the
#     lintian overrides;
#   - /usr/sbin/autoresponder set-user-ID root, mode 4755: the mail system
#     runs it as an ordinary user, and the database password file it reads is
#     readable by root only (see the README's operator's checklist). Every
#     other program stays 0755. Owner and group of every file are root: the
#     package's archive records no other.
set(stage "${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX}")
if(NOT IS_DIRECTORY "${stage}/sbin")
  message(FATAL_ERROR "deb_staging: no programs in the staging directory ${stage}")
endif()

file(GLOB_RECURSE man_pages "${stage}/share/man/*")
foreach(page IN LISTS man_pages)
  if(NOT page MATCHES "\\.gz$")
    execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "deb_staging: gzip ${page} failed")
    endif()
  endif()
endforeach()

set(doc "${stage}/share/doc/${CPACK_PACKAGE_NAME}")
file(MAKE_DIRECTORY "${doc}")
file(COPY_FILE "${CPACK_OVK_PACKAGING_DIR}/copyright" "${doc}/copyright")
file(COPY_FILE "${CPACK_OVK_PACKAGING_DIR}/changelog" "${doc}/changelog.Debian")
execute_process(COMMAND gzip -9nf "${doc}/changelog.Debian" RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "deb_staging: gzip changelog failed")
endif()

# Tags lintian reports on purpose, each with its reason.
set(overrides "${stage}/share/lintian/overrides")
file(MAKE_DIRECTORY "${overrides}")
file(COPY_FILE "${CPACK_OVK_PACKAGING_DIR}/lintian-overrides" "${overrides}/${CPACK_PACKAGE_NAME}")

file(GLOB_RECURSE staged "${stage}/*")
foreach(path IN LISTS staged)
  file(CHMOD "${path}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
file(GLOB programs "${stage}/sbin/*" "${stage}/bin/*")
foreach(program IN LISTS programs)
  file(CHMOD "${program}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
       GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
file(CHMOD "${stage}/sbin/autoresponder" FILE_PERMISSIONS SETUID OWNER_READ OWNER_WRITE
     OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
