# Draws the file of a kiv-watch -o: a line for each antenna.
#   gnuplot -e "file='signal.csv'; picture='signal.svg'" examples/signal.gp
if (!exists("file")) file = "signal.csv"
if (!exists("picture")) picture = "signal.svg"
set terminal svg size 800,360 font "sans,12" background "white"
set output picture
set datafile separator ","
stats file skip 1 using 0 nooutput
set xdata time
set timefmt "%Y-%m-%dT%H:%M:%S"
set format x "%H:%M:%S"
set key autotitle columnhead outside noenhanced
set xtics rotate by 45 right
set ylabel "dBm"
set grid
plot for [column = 2 : STATS_columns] file using 1:column with lines linewidth 2
