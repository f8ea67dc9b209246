module Stats

export mean_and_spread

"""
    mean_and_spread(xs)

Return the mean and the standard deviation of `xs`.
"""
function mean_and_spread(xs::AbstractVector{<:Real})
    n = length(xs)
    n == 0 && return (NaN, NaN)
    m = sum(xs) / n
    s = sqrt(sum((x - m)^2 for x in xs) / max(n - 1, 1))
    return (m, s)
end

end # module

using .Stats
m, s = mean_and_spread([1.0, 2.0, 4.0])
println("mean $(m), spread $(s)")
