# What packaging/build-deb and packaging/check share. Sourced by them behind cmake/common.sh, never run. Expects ROOT to
# name the checkout.
# shellcheck shell=bash

# Every file of the project: those git knows or would add, or, without git's directory, all but what is built.
project_files() {
  if [[ -e $ROOT/.git ]] && command -v git >/dev/null; then
    git -C "$ROOT" -c safe.directory="$ROOT" ls-files -z --cached --others --exclude-standard |
      while IFS= read -r -d '' file; do
        if [[ -e $ROOT/$file || -L $ROOT/$file ]]; then printf '%s\0' "$file"; fi
      done
  else
    (cd "$ROOT" && find . \( -path ./build -o -path './build-*' -o -path ./.git \) -prune -o ! -type d -print0)
  fi
}

# copy_source DIRECTORY: the project's files, with the same modes whoever has checked them out.
copy_source() {
  mkdir -p "$1"
  project_files | tar -C "$ROOT" --null -T - -cf - | tar -C "$1" --no-same-owner -xf -
  chmod -R u+rwX,go-w,a+rX "$1"
}

# Without what the caller's surroundings say about compiling, which would be in what is made.
plainly() {
  env -u CFLAGS -u CXXFLAGS -u CPPFLAGS -u LDFLAGS -u MAKEFLAGS -u CMAKE_GENERATOR -u CMAKE_CXX_COMPILER_LAUNCHER \
    -u SOURCE_DATE_EPOCH -u DEB_BUILD_PROFILES -u DEB_BUILD_MAINT_OPTIONS "$@"
}
