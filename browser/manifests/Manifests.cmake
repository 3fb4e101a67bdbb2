# Writes the native-messaging manifests of Chromium/Chrome and Firefox into `dir`/chromium and
# `dir`/firefox, naming `hostPath` as the program. Used when configuring (for the build tree) and
# when installing (for the install prefix, which is known only then).
function(scriva_write_host_manifests templateDir dir hostPath)
  set(SCRIVA_HOST_PATH ${hostPath})
  foreach(browser chromium firefox)
    configure_file(${templateDir}/${browser}.json.in ${dir}/${browser}/${SCRIVA_HOST_NAME}.json @ONLY)
  endforeach()
endfunction()
