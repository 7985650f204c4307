# bash completion for qorchat: its options, --service names, --format and --share-results
# values, and files where an option takes a file.

_qorchat() {
  local cur prev
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  case $prev in
  --service)
    mapfile -t COMPREPLY < <(compgen -W 'openai google deepseek ollama x anthropic alibaba' -- "$cur")
    return
    ;;
  --format)
    mapfile -t COMPREPLY < <(compgen -W 'table csv json markdown' -- "$cur")
    return
    ;;
  --share-results)
    mapfile -t COMPREPLY < <(compgen -W 'never ask always' -- "$cur")
    return
    ;;
  --db | --config | --api-key-file | --ca-file | --notes)
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    return
    ;;
  --host | --model | --temperature | --max-tokens | --timeout | --proxy | --ask | \
    --print-request | --statement-timeout | --schema-budget | --conversation | --max-rows | --null | \
    --max-steps)
    return
    ;;
  esac
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--help --version --config --db --statement-timeout
      --schema-budget --notes --conversation --no-history --service --host --model --temperature
      --max-tokens --timeout --proxy --ca-file --api-key-file --format --max-rows --null
      --no-pager --timing --no-color --no-stream --share-results --max-steps --ask --print-request --list-models --run --mcp' -- "$cur")
  fi
}
complete -F _qorchat qorchat
