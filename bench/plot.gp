# Cost against size. Called by bench/run with `folder` (of the points) and `picture` set.
set terminal pngcairo size 1200,900 font "sans,10" noenhanced
set output picture
set multiplot layout 2,2
set logscale x 10
set format x "%.0f"
set xlabel "records"
set ylabel "ns per operation"
set logscale y 10
set key left top
set grid
set rmargin 4

do for [key in "4B 6B"] {
    set title sprintf("Keyed hash map (solid) and std::unordered_map (dashed), %s keys", key)
    plot for [i=1:4] sprintf("%s/%s-%s-ours.dat", folder, word("put find miss delete", i), key) \
             with linespoints lc i pt 7 title word("put find miss delete", i), \
         for [i=1:4] sprintf("%s/%s-%s-std.dat", folder, word("put find miss delete", i), key) \
             with linespoints lc i pt 6 dt 2 notitle
}
unset logscale y
set yrange [0:*]
set key left bottom
set title "Memory of a record with its share of the map"
set ylabel "bytes"
plot for [i=1:2] sprintf("%s/memory-%s-ours.dat", folder, word("4B 6B", i)) \
         with linespoints lc i pt 7 title word("4B 6B", i)." ours", \
     for [i=1:2] sprintf("%s/memory-%s-std.dat", folder, word("4B 6B", i)) \
         with linespoints lc i pt 6 dt 2 title word("4B 6B", i)." std::unordered_map"
unset yrange
set key left top
set logscale y 10
set title "The daemon"
set xlabel "MACs (aging: ports)"
set ylabel "ns per object"
plot for [name in "sync_first sync_again aging oui_delete"] \
         sprintf("%s/%s.dat", folder, name) with linespoints pt 7 title name
unset multiplot
