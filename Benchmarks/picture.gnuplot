# Draws time and peak memory against reply size: gnuplot -e "data='FILE'; note='TEXT'" picture.gnuplot >PICTURE
#
# The background is transparent and the greys are readable on white as on black.
set terminal svg size 960,430 dynamic enhanced font "sans-serif,13" name "reply_sizes"
set encoding utf8
grey = "#818b98"

set multiplot layout 1,2 margins 0.07,0.97,0.14,0.91 spacing 0.08
set border 3 linecolor rgb grey
set tics nomirror textcolor rgb grey
set grid linecolor rgb grey linewidth 0.3 dashtype 3
set logscale xy
set xrange [800:400e6]
set xtics ("1 KB" 2**10, "64 KB" 2**16, "4 MB" 2**22, "256 MB" 2**28)
unset mytics

set style line 1 linecolor rgb "#2f81f7" linewidth 3 pointtype 7 pointsize 0.6
set style line 2 linecolor rgb "#818b98" linewidth 1.5 pointtype 1 pointsize 0.6 dashtype 2
set style line 3 linecolor rgb "#d2691e" linewidth 1.5 pointtype 4 pointsize 0.6
set style line 4 linecolor rgb "#2ea043" linewidth 1.5 pointtype 8 pointsize 0.7
set style line 5 linecolor rgb "#a371f7" linewidth 1.5 pointtype 2 pointsize 0.6

set key top left Left reverse samplen 2.5 textcolor rgb grey
set label 1 note at screen 0.985,0.025 right textcolor rgb grey font ",10" noenhanced
set title "time from request to reply, by size of the reply" textcolor rgb grey
set yrange [9:1.1e8]
set ytics ("10 µs" 1e1, "100 µs" 1e2, "1 ms" 1e3, "10 ms" 1e4, "100 ms" 1e5, "1 s" 1e6, "10 s" 1e7, "100 s" 1e8)
plot for [i=0:4] data index i using 1:2 linestyle i + 1 with linespoints title columnheader(1)

unset key
unset label 1
set title "peak memory of the server, by size of the reply" textcolor rgb grey
set yrange [5e5:5e9]
set ytics ("1 MB" 1e6, "10 MB" 1e7, "100 MB" 1e8, "1 GB" 1e9)
plot for [i=0:4] data index i using 1:3 linestyle i + 1 with linespoints notitle
unset multiplot
