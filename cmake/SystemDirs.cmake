# The library's fixed directories, made only by the install component
# system-dirs (cmake --install BUILD --component system-dirs), never by a
# plain or prefix install:
#   /etc/opt/QRZNvolta                 configuration (kemail.ini, trc_conf)
#   /var/opt/QRZNvolta/tmp             work files: whole messages
#   /var/opt/QRZNvolta/tmp2            trace files: AUTH strings, message data
#   /var/opt/QRZNvolta/log             mail logs: the SMTP dialogue
# The files in them are created 0644, so the directories are what keeps them
# from other local users: each is made (or set, when it exists) mode 0700 and
# owned by the user the agent runs as, KEMAIL_AGENT_USER (default root).
# DESTDIR is honoured, for packaging.
set(KEMAIL_AGENT_USER "root" CACHE STRING
    "User the calling agent runs as: owner of the library's private directories")

install(CODE "
  set(agent_user \"${KEMAIL_AGENT_USER}\")
  foreach(dir /etc/opt/QRZNvolta /var/opt/QRZNvolta/tmp /var/opt/QRZNvolta/tmp2
              /var/opt/QRZNvolta/log)
    set(path \"\$ENV{DESTDIR}\${dir}\")
    message(STATUS \"Private directory: \${path} (0700, \${agent_user})\")
    file(MAKE_DIRECTORY \"\${path}\")
    file(CHMOD \"\${path}\" DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    execute_process(COMMAND chown \"\${agent_user}:\" \"\${path}\"
                    RESULT_VARIABLE rc ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR \"chown \${agent_user} \${path} failed: \${err}\")
    endif()
  endforeach()
" COMPONENT system-dirs EXCLUDE_FROM_ALL)
