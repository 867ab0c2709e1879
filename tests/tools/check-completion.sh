#!/bin/bash
# The bash completions offer the tools' options and the values they know.
set -u
dir=${1:?usage: check-completion.sh COMPLETION-DIR}
status=0
# complete WORDS...: COMPREPLY for the last word of the command line.
complete_line() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(( ${#COMP_WORDS[@]} - 1 ))
  COMPREPLY=()
  "$func"
  printf '%s\n' "${COMPREPLY[@]}"
}
expect() {  # WANT WORDS...
  local want=$1; shift
  if ! complete_line "$@" | grep -qxF -- "$want"; then
    echo "completing '$*' does not offer $want"; status=1
  fi
}
source "$dir/kemail-send" || exit 1
func=_kemail_send
expect --auth-mechanisms kemail-send --aut
expect --require-auth kemail-send --req
expect --version kemail-send --vers
expect cram-md5 kemail-send --auth-mechanisms cr
expect --tls-no-verify kemail-send --tls-no
expect starttls kemail-send --tls st
expect pop3s kemail-send --pop-tls po
source "$dir/kemail-trace" || exit 1
func=_kemail_trace
expect --failures kemail-trace --fa
expect --summary kemail-trace --sum
expect ACERT kemail-trace --grep AC
[ "$(complete -p kemail-send)" = "complete -F _kemail_send kemail-send" ] || { echo "kemail-send not registered"; status=1; }
[ $status -eq 0 ] && echo "completions offer what they should"
exit $status
