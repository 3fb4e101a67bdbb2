# The build identifier is the git commit of the source tree, refreshed on every build;
# the header is rewritten only when the commit changes, so nothing rebuilds needlessly.
set(SCRIVA_BUILDID_HEADER ${CMAKE_BINARY_DIR}/generated/scrivabuildid.h)
add_custom_target(ScrivaBuildId
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DOUTPUT=${SCRIVA_BUILDID_HEADER}
          -P ${CMAKE_SOURCE_DIR}/cmake/WriteBuildId.cmake
  BYPRODUCTS ${SCRIVA_BUILDID_HEADER}
  COMMENT "Reading the source revision")
