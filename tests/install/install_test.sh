#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks what a user gets:
# the program, its manual page and its bash completion, which stay in step
# with the program's --help and exit statuses; then, when the tools are
# there, builds the Debian package into a temporary folder and runs the
# program unpacked from it.
#
# usage: install_test.sh <cmake> <cpack> <build dir> <source dir> <version>
set -uo pipefail

CMAKE=$1 CPACK=$2 BUILD_DIR=$3 SOURCE_DIR=$4 VERSION=$5

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
skip() { echo "SKIP: $*"; }

work=$(mktemp -d "${TMPDIR:-/tmp}/symlift-install-test.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT

# --- cmake --install --------------------------------------------------------
prefix=$work/prefix
if ! "$CMAKE" --install "$BUILD_DIR" --prefix "$prefix" >"$work/install.log" 2>&1; then
  cat "$work/install.log"
  echo "FAIL: cmake --install"
  exit 1
fi

# Exactly these three files, nothing from the helper tools or the tests.
expected=$'bin/symlift\nshare/bash-completion/completions/symlift\nshare/man/man1/symlift.1'
installed=$(cd "$prefix" && find . -type f -o -type l | sed 's|^\./||' | LC_ALL=C sort)
[[ $installed == "$expected" ]] || fail "installed files are"$'\n'"$installed"$'\n'"expected"$'\n'"$expected"
[[ -x $prefix/bin/symlift ]] || fail "bin/symlift is not executable"

symlift=$prefix/bin/symlift
man_page=$prefix/share/man/man1/symlift.1
completion=$prefix/share/bash-completion/completions/symlift

version_output=$("$symlift" --version 2>&1)
status=$?
[[ $status -eq 6 ]] || fail "installed symlift --version exited with $status"
[[ $version_output == "symlift $VERSION build "* ]] || fail "installed symlift --version printed '$version_output'"

# The options as --help lists them ("-ai, --app-id <...>") and as the program
# defines them (src/cli/options.h, which has some --help leaves out): each
# pair must be documented and, but for the retired API key, completed.
help_output=$("$symlift" --help 2>&1)
help_pairs=$(grep -oE -- '-[a-z]+, --[a-z-]+' <<<"$help_output")
[[ $(wc -l <<<"$help_pairs") -ge 6 ]] || fail "found too few options in --help: $help_output"
defined_pairs=$(sed -nE 's/.*k([A-Za-z]+)Option\{"([a-z]+)", "([a-z-]+)"\}.*/\1 -\2, --\3/p' \
  "$SOURCE_DIR/src/cli/options.h")
[[ $(wc -l <<<"$defined_pairs") -ge 10 ]] || fail "found too few options in options.h"
mapfile -t documented_options < <({ echo "$help_pairs"; cut -d' ' -f2- <<<"$defined_pairs"; } | sort -u)
mapfile -t completed_options < <({ echo "$help_pairs"; grep -v '^APIKey ' <<<"$defined_pairs" | cut -d' ' -f2-; } | sort -u)

# --- manual page --------------------------------------------------------------
grep -q "^\.TH SYMLIFT 1 .*\"symlift $VERSION\"" "$man_page" || fail "man page header does not name version $VERSION"

if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z "$man_page" 2>&1)
  [[ -z $warnings ]] || fail "groff warns about the man page:"$'\n'"$warnings"
else
  skip "groff is not installed: man page warnings not checked"
fi

if command -v man >/dev/null; then
  # man-db drops the bold and underline when its output is not a terminal.
  rendered=$(MANWIDTH=100 man -l "$man_page" 2>"$work/man.err")
  [[ -s $work/man.err ]] && fail "man -l complained: $(cat "$work/man.err")"
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" ENVIRONMENT FILES EXAMPLES; do
    grep -qx "$section" <<<"$rendered" || fail "rendered man page has no $section section"
  done
  for pair in "${documented_options[@]}"; do
    grep -qF -- "$pair" <<<"$rendered" || fail "man page does not document '$pair'"
  done
  # Every exit status the program defines is explained.
  exit_section=$(sed -n '/^EXIT STATUS$/,/^ENVIRONMENT$/p' <<<"$rendered")
  while read -r value; do
    # A tag of .TP starts at the section's indent (7), its text further in.
    grep -qE "^ {7}$value( |\$)" <<<"$exit_section" || fail "man page does not explain exit status $value"
  done < <(grep -oE 'kExit[A-Za-z]+ = [0-9]+' "$SOURCE_DIR/src/cli/exit_status.h" | awk '{print $3}' | sort -un)
  for variable in TMPDIR VantrelUploadEndpoint VantrelAPIEndpoint SSL_CERT_FILE HTTPS_PROXY BUILT_PRODUCTS_DIR; do
    grep -qw "$variable" <<<"$rendered" || fail "man page does not mention $variable"
  done
else
  skip "man is not installed: the man page was not rendered"
fi

# --- bash completion ------------------------------------------------------------
mkdir -p "$work/paths/App.dSYM/Contents" "$work/paths/folder"
touch "$work/paths/archive.zip" "$work/paths/notes.txt"
completion_result=$(cd "$work/paths" && bash --norc --noprofile -c '
  source "$1" || exit 1
  complete -p symlift || exit 1
  complete_words() {  # complete_words word... : completes the last word
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=()
    _symlift
    printf "%s\n" "${COMPREPLY[@]}" | LC_ALL=C sort | tr "\n" " "; echo
  }
  echo "platform: $(complete_words symlift -p "")"
  echo "long-platform: $(complete_words symlift -ai X --platform m)"
  echo "paths: $(complete_words symlift -p ios "")"
  echo "after-separator: $(complete_words symlift -- -x "")"
  echo "options: $(complete_words symlift -)"
' bash "$completion" 2>&1)
echo "$completion_result" | sed 's/^/  completion /'
grep -qx 'complete -F _symlift symlift' <<<"$completion_result" || fail "complete -p symlift after sourcing the completion"
grep -qx 'platform: ios mac tvos ' <<<"$completion_result" || fail "platform values after -p"
grep -qx 'long-platform: mac ' <<<"$completion_result" || fail "platform values after --platform"
grep -qx 'paths: App.dSYM archive.zip folder ' <<<"$completion_result" || fail "paths: dSYMs, folders and zip archives"
grep -qx 'after-separator: App.dSYM archive.zip folder ' <<<"$completion_result" || fail "paths after --"
options_line=$(sed -n 's/^options: //p' <<<"$completion_result")
for pair in "${completed_options[@]}"; do
  short=${pair%%,*} long=${pair#*, }
  [[ " $options_line " == *" $short "* && " $options_line " == *" $long "* ]] ||
    fail "completion does not offer $short and $long"
done

# --- Debian package ---------------------------------------------------------
if ! command -v dpkg-deb >/dev/null || ! command -v dpkg-shlibdeps >/dev/null; then
  skip "dpkg-deb or dpkg-shlibdeps (dpkg-dev) is not installed: no package built"
elif [[ ! -f $BUILD_DIR/CPackConfig.cmake ]]; then
  skip "$BUILD_DIR has no CPackConfig.cmake: no package built"
else
  if ! "$CPACK" --config "$BUILD_DIR/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"
    fail "cpack could not build the package"
  else
    debs=("$work/package"/symlift_"$VERSION"_*.deb)
    if [[ ${#debs[@]} -ne 1 || ! -f ${debs[0]} ]]; then
      fail "expected one symlift_${VERSION}_<arch>.deb, found: $(ls "$work/package")"
    else
      deb=${debs[0]}
      echo "  package $(basename "$deb"), $(stat -c %s "$deb") bytes"
      fields=$(dpkg-deb -f "$deb" Package Version Depends)
      echo "$fields" | sed 's/^/  package /'
      grep -qx 'Package: symlift' <<<"$fields" || fail "package name"
      grep -qx "Version: $VERSION" <<<"$fields" || fail "package version"
      # Worked out by dpkg-shlibdeps from what the program links.
      depends=$(sed -n 's/^Depends: //p' <<<"$fields")
      for library in libc6 libstdc++6 libcurl4 libplist3 zlib1g; do
        [[ ", $depends" == *", $library "* || ", $depends" == *", $library,"* || ", $depends" == *", $library" ]] ||
          fail "Depends lacks $library: $depends"
      done
      root=$work/extracted
      dpkg-deb -x "$deb" "$root" || fail "dpkg-deb -x"
      for file in usr/bin/symlift usr/share/man/man1/symlift.1 usr/share/bash-completion/completions/symlift; do
        [[ -f $root/$file ]] || fail "package lacks /$file"
      done
      packaged_output=$("$root/usr/bin/symlift" --version 2>&1)
      status=$?
      [[ $status -eq 6 ]] || fail "packaged symlift --version exited with $status"
      [[ $packaged_output == "symlift $VERSION build "* ]] || fail "packaged symlift --version printed '$packaged_output'"
    fi
  fi
fi

if ((failures > 0)); then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all install checks passed"
