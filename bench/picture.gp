# Draws the ratios to the floor: gnuplot -e "data='FILE'; picture='FILE'" picture.gp
set terminal svg size 1200,560 background "white"
set output picture
set datafile separator "\t"
set datafile missing "?"
set key autotitle columnhead outside right
set boxwidth 0.6
set style fill solid 0.6 noborder
set logscale y
set yrange [0.005:*]
set ylabel "time, as a ratio to the floor"
set xtics nomirror rotate by -60 noenhanced
set grid ytics
plot data using 2:xticlabels(1) with boxes linecolor rgb "#4477aa", \
     1 with lines linecolor rgb "black" title "floor", \
     data using 0:3:(0.4) with xerrorbars pointtype 0 linewidth 3 linecolor rgb "#cc3311" title "bar", \
     for [column=4:9] data using 0:column with points pointtype column pointsize 0.9
