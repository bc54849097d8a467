# Makes the data of picture.gnuplot from what SideBySide --sizes wrote (jq -r): one block per server, one line per
# reply size: bytes, time in microseconds, peak memory in bytes. The first line says which curve ends early, and why.

include "figures";

def titles: {ours: "TidewellMCP", floor: "floor", plain: "plain", expert: "expert’s", sdk: "TypeScript SDK’s"};

.context as $context | seen as $seen
| [titles | to_entries[] | . as {$key, $value} | $context["stopped_\($key)"] | select(. != null)
    | capture("^(?<size>[0-9]+) (?<reason>.*)$")
    | "\($value) at \(.size | tonumber / 1048576 * 1000 | round / 1000) MB (\(.reason | gsub("[^A-Za-z0-9 ]"; "")))"]
  as $stopped
| "# " + if $stopped == [] then "" else "Ends early: \($stopped | join(", "))" end,
  (titles | keys_unsorted[] as $server
    | ([$seen | keys[] | select(startswith("size_") and endswith("/\($server)")) | split("/")[0]]
        | sort_by(ltrimstr("size_") | tonumber)[]) as $work
    | ($work | select(. == "size_1024") | "\n\n\"\(titles[$server])\""),
      ([$work | ltrimstr("size_")] + (["real_time", "peak"] | map(median($seen; $work; $server; .) | tostring))
        | join(" ")))
