# Catalogues are compiled from the .ts sources straight into share/translations of the build tree.
set(SCRIVA_TS_FILES
  ${CMAKE_SOURCE_DIR}/translations/Scriva_en.ts
  ${CMAKE_SOURCE_DIR}/translations/Scriva_cs.ts)
set_source_files_properties(${SCRIVA_TS_FILES} PROPERTIES OUTPUT_LOCATION ${SCRIVA_TRANSLATIONS_DIR})
