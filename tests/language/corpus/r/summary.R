library(ggplot2)

# Read the measurements and summarise them by group.
measurements <- read.csv("measurements.csv", stringsAsFactors = FALSE)
measurements$group <- factor(measurements$group)

summary_by_group <- aggregate(value ~ group, data = measurements, FUN = mean)
print(summary_by_group)

if (nrow(measurements) > 0) {
  plot <- ggplot(measurements, aes(x = group, y = value)) +
    geom_boxplot() +
    labs(title = "Values by group")
  ggsave("values.png", plot)
}

scale <- function(x, na.rm = TRUE) {
  (x - mean(x, na.rm = na.rm)) / sd(x, na.rm = na.rm)
}
measurements$scaled <- scale(measurements$value)
