# Draws what soak has noted: gnuplot -e "data='FILE'; picture='FILE'" picture.gp
set terminal svg size 900,800 background "white"
set output picture
set multiplot layout 3,1
set key autotitle columnhead outside right
set lmargin 12
set rmargin 16
set offsets graph 0, 0, 0.1, 0
set grid
set xlabel "minutes"
set yrange [0:*]
set ylabel "MiB"
plot data using ($1/60):($2/1048576) with lines title "resident", \
     data using ($1/60):($3/1048576) with lines title "heap"
set ylabel ""
plot data using ($1/60):4 with lines title "descriptors", \
     data using ($1/60):5 with lines title "threads"
set ylabel "per second"
unset offsets # a logarithmic axis takes none
set logscale y
set yrange [1:*]
plot data using ($1/60):($6/$1) with lines title "frames", \
     data using ($1/60):($7/$1) with lines title "messages", \
     data using ($1/60):($8/$1) with lines title "texts"
