# The two Debian packages, made by CPack from the install components:
#   quillet         the client (component "client"), recommends quillet-server
#   quillet-server  the local backend (component "server")
# Library dependencies come from dpkg-shlibdeps; what the programs load or run without
# linking it (QML modules, Qt's platform plugins, the speech model, helper programs) is
# listed here.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillet)
set(CPACK_PACKAGE_VENDOR "The Quillet developers")
set(CPACK_PACKAGE_CONTACT "The Quillet developers <developers@quillet.app>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL client server)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://quillet.app/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME quillet)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS
  "qml6-module-qtquick, qml6-module-qtquick-controls, qml6-module-qtquick-layouts, qml6-module-qtquick-templates, qml6-module-qtquick-window, qml6-module-qtqml-workerscript, qt6-qpa-plugins, libqt6svg6, at-spi2-core, xdg-utils, wl-clipboard, wtype")
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS "quillet-server, pulseaudio | pipewire-pulse, fonts-noto-color-emoji")
set(CPACK_DEBIAN_CLIENT_PACKAGE_SUGGESTS "gnome-keyring")
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "push-to-talk dictation into any application
Hold a key anywhere, speak, let go: the words appear at the cursor of
whatever application has the focus, cleaned up, or rewritten in a tone
you pick. Quillet lives in the panel's tray and never takes the keyboard
focus. It streams speech to a recognition backend (by default the local
quillet-server, which works offline) and inserts text through the
accessibility bus or the clipboard.")

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME quillet-server)
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "pocketsphinx-en-us, libqt6sql6-sqlite")
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS "libqt6sql6-psql")
set(CPACK_COMPONENT_SERVER_DESCRIPTION "local backend for Quillet dictation
The backend the Quillet client talks to by default, so dictation works
offline with nothing else running: speech recognition with PocketSphinx,
rule-based clean-up and rewriting in six tones (or an OpenAI-compatible
endpoint), and the sign-in pages that hand tokens to the client. A
systemd user unit starts it at login.")

include(CPack)
